/*
 * The shared Box request loop against the emulator: the waits between
 * attempts on 429.  The attempts each call makes (dropped connections)
 * are box_calls_test's AttemptsOfEachCall; an explained refusal is tried once (box_command_test's
 * ARefusalBoxExplainsIsNeverRetried, box_download_test's
 * AnswersOfTheContentRequestAndTheDownload).
 */
#include <map>
#include <vector>

#include "box_scratch.h"
#include "box_session_support.h"
#include "request.h"
#include "retry.h"
#include "tarvex_gridftp_server.h"

namespace box_session_test {
namespace {

class request_test : public session_test {};

/* Box's Retry-After is waited before the next attempt, up to the
 * policy's longest wait; a 429 with neither body nor Retry-After is tried
 * again at once. */
TEST_F(request_test, RetryAfterDelaysTheNextAttempt)
{
    tarvex_test::box_scratch scratch{TARVEX_BOX_DEBUG};
    seed(R"([{"path":"/a","type":"folder"}])");
    ASSERT_NE(start(), nullptr);
    take_requests();
    const std::string url = emulator().api_base() + "/2.0/folders/0/items";
    tarvex_box_request_t request{};
    request.method = "GET";
    request.url = url.c_str();
    request.attempts = 4;
    request.retry = &session_->user_retry;
    static std::vector<unsigned> waited;
    auto saved = tarvex_i_box_wait;
    tarvex_i_box_wait = [](unsigned seconds) { waited.push_back(seconds); };
    fault("GET", "^/2.0/folders/0/items", 1, R"("status":429,"body":null)");
    for (const char *seconds : {"2", "90"})
        fault("GET", "^/2.0/folders/0/items", 1,
              R"("status":429,"headers":{"Retry-After":")" + std::string(seconds) +
                  R"("},"body":null)");
    /* What the attempts report to the server's metrics. */
    static std::map<std::string, double> counted;
    static const tarvex_gfs_metrics_sink_t sink = {
        [](void *, const char *name, const char *labels, double amount) {
            counted[std::string(name) + " " + labels] += amount;
        },
        nullptr};
    tarvex_gfs_metrics_set_sink(&sink, nullptr);
    ASSERT_EQ(tarvex_box_request(session_, &request), TARVEX_SUCCESS);
    tarvex_gfs_metrics_set_sink(nullptr, nullptr);
    tarvex_i_box_wait = saved;
    EXPECT_EQ(counted, (std::map<std::string, double>{{"storage_requests GET 429", 3},
                                                      {"storage_requests GET 200", 1},
                                                      {"storage_retries ", 3},
                                                      {"storage_throttled ", 3},
                                                      {"storage_retry_after_seconds ", 27}}));
    EXPECT_EQ(request.attempts_made, 4);
    EXPECT_EQ(waited, (std::vector<unsigned>{2, 25}));
    const std::string debug = scratch.debug_text();
    EXPECT_NE(debug.find("retry_after=2 sleep=2\n"), std::string::npos) << debug;
    /* The bare 429, the first answer, logged no Retry-After. */
    EXPECT_EQ(debug.find("retry_after="), debug.find("retry_after=2 ")) << debug;
    json_t *entries = json_object_get(request.json, "entries");
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(entries, 0), "name")), "a");
    auto log = take_requests();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].status, 429);
    EXPECT_EQ(log[3].status, 200);
    EXPECT_EQ(log[3].header("Authorization"), "Bearer test-token");
    tarvex_box_request_release(&request);
}
} // namespace
} // namespace box_session_test
