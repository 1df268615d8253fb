/*
 * The shared Box request loop against the emulator: what goes out on the
 * wire, which answers are retried, how often, and after what wait.
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "box_emulator.h"
#include "tarvex_box_common.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

tarvex_test::BoxEmulator *emulator = nullptr;

class BoxRequest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        tarvex_module_activate(&tarvex_i_box_common_module);
        emulator = new tarvex_test::BoxEmulator();
    }
    static void TearDownTestSuite()
    {
        delete emulator;
        emulator = nullptr;
        tarvex_module_deactivate(&tarvex_i_box_common_module);
    }

    void SetUp() override
    {
        emulator->reset();
        tarvex_dsi_rest_close_connections();
        tarvex_box_set_bases(emulator->api_base().c_str(), emulator->upload_base().c_str());
        char name[] = "/tmp/box-request-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        retry_template_ = dir_ + "/box-r";
        saved_retry_path_ = tarvex_i_box_retry_path;
        tarvex_i_box_retry_path = retry_template_.c_str();
        box_.access_token = strdup("test-token");
        box_.user_id = strdup("123");
        box_.access_token_exp = time(nullptr) + 3600;
        tarvex_i_box_retry_state_create("123", 50, &box_.user_retry);

        saved_debug_ = tarvex_i_TARVEX_BOX_debug_handle;
        debug_path_ = dir_ + "/debug.log";
        tarvex_debug_handle_t &h = tarvex_i_TARVEX_BOX_debug_handle;
        h = tarvex_debug_handle_t{};
        h.levels = TARVEX_BOX_DEBUG;
        h.file = fopen(debug_path_.c_str(), "w");
    }
    void TearDown() override
    {
        tarvex_box_request_release(&request_);
        if (tarvex_i_TARVEX_BOX_debug_handle.file)
            fclose(tarvex_i_TARVEX_BOX_debug_handle.file);
        tarvex_i_TARVEX_BOX_debug_handle = saved_debug_;
        tarvex_i_box_retry_state_destroy(&box_.user_retry);
        free(box_.access_token);
        free(box_.user_id);
        tarvex_i_box_retry_path = saved_retry_path_;
        fs::remove_all(dir_);
    }

    /* A GET of the root listing with the usual two attempts. */
    tarvex_box_request_t &root_listing()
    {
        url_ = emulator->api_base() + "/2.0/folders/0/items";
        request_.method = "GET";
        request_.url = url_.c_str();
        request_.attempts = 2;
        request_.retry = &box_.user_retry;
        return request_;
    }
    std::string debug_text()
    {
        fflush(tarvex_i_TARVEX_BOX_debug_handle.file);
        std::ifstream in(debug_path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    static size_t count_of(const std::string &text, const std::string &word)
    {
        size_t n = 0;
        for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
            n++;
        return n;
    }

    tarvex_box_session_t box_{};
    tarvex_box_request_t request_{};
    std::string url_, dir_, retry_template_, debug_path_;
    const char *saved_retry_path_ = nullptr;
    tarvex_debug_handle_t saved_debug_{};
};

tarvex_object_t *peek(tarvex_result_t result) { return tarvex_error_peek(result); }

/* The emulator notes a request once its answer is out, so the entry of the
 * last one may land a moment after the client has returned. */
std::vector<tarvex_test::BoxEmulator::LogEntry> settled_log(size_t expected)
{
    auto log = emulator->log();
    for (int i = 0; i < 100 && log.size() < expected; i++) {
        usleep(10000);
        log = emulator->log();
    }
    return log;
}

TEST_F(BoxRequest, SendsBearerTokenAndReadsJson)
{
    emulator->seed(R"({"entries":[{"path":"/a","type":"folder"}]})");
    ASSERT_EQ(tarvex_box_request(&box_, &root_listing()), TARVEX_SUCCESS);
    EXPECT_EQ(request_.attempts_made, 1);
    EXPECT_EQ(request_.response.response_code, 200);
    ASSERT_NE(request_.json, nullptr);
    json_t *entries = json_object_get(request_.json, "entries");
    ASSERT_EQ(json_array_size(entries), 1u);
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(entries, 0), "name")), "a");

    auto log = settled_log(1);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].header("Authorization"), "Bearer test-token");
    EXPECT_EQ(count_of(debug_text(), "API CALL!\n"), 1u);
}

TEST_F(BoxRequest, JsonBodyGoesOutWithItsContentType)
{
    url_ = emulator->api_base() + "/2.0/folders";
    json_t *body = json_pack("{s:s,s:{s:s}}", "name", "made", "parent", "id", "0");
    request_.method = "POST";
    request_.url = url_.c_str();
    request_.json_body = body;
    request_.attempts = 2;
    request_.retry = &box_.user_retry;
    tarvex_result_t result = tarvex_box_request(&box_, &request_);
    json_decref(body);
    ASSERT_EQ(result, TARVEX_SUCCESS);
    EXPECT_EQ(request_.response.response_code, 201);
    EXPECT_STREQ(json_string_value(json_object_get(request_.json, "name")), "made");
    auto log = settled_log(1);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].header("Content-Type"), "application/json;");
    EXPECT_NE(emulator->item("/made"), "");
}

/* A 429 with neither body nor Retry-After is tried again at once. */
TEST_F(BoxRequest, BareTooManyRequestsIsRetriedOnce)
{
    emulator->fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,
                        "status":429,"body":null})");
    ASSERT_EQ(tarvex_box_request(&box_, &root_listing()), TARVEX_SUCCESS);
    EXPECT_EQ(request_.attempts_made, 2);
    auto log = settled_log(2);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].status, 429);
    EXPECT_EQ(log[1].status, 200);
    EXPECT_EQ(debug_text().find("retry_after="), std::string::npos);
}

TEST_F(BoxRequest, RetryAfterDelaysTheNextAttempt)
{
    emulator->fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,
                        "status":429,"headers":{"Retry-After":"2"},"body":null})");
    auto started = clock_type::now();
    ASSERT_EQ(tarvex_box_request(&box_, &root_listing()), TARVEX_SUCCESS);
    auto waited = clock_type::now() - started;
    EXPECT_EQ(request_.attempts_made, 2);
    EXPECT_NE(debug_text().find("retry_after=2 sleep=2\n"), std::string::npos);
    EXPECT_GE(waited, std::chrono::seconds(2));
}

TEST_F(BoxRequest, NotFoundWithABoxBodyIsNotRetried)
{
    url_ = emulator->api_base() + "/2.0/files/987654/";
    request_.method = "GET";
    request_.url = url_.c_str();
    request_.attempts = 2;
    request_.retry = &box_.user_retry;
    tarvex_object_t *error = peek(tarvex_box_request(&box_, &request_));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), 550);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), "PATH_NOT_FOUND");
    EXPECT_STREQ(tarvex_box_error_get_info(error, "code"), "not_found");
    EXPECT_EQ(request_.attempts_made, 1);
    EXPECT_EQ(request_.json, nullptr);
    EXPECT_EQ(settled_log(1).size(), 1u);

    /* From the status alone: the same class, no Box details. */
    request_.translate_without_body = true;
    error = peek(tarvex_box_request(&box_, &request_));
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), "PATH_NOT_FOUND");
    EXPECT_EQ(tarvex_error_get_cause(error), nullptr);
}

TEST_F(BoxRequest, RetryableTransportFailureUsesTheBudget)
{
    emulator->fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,"drop":true})");
    ASSERT_EQ(tarvex_box_request(&box_, &root_listing()), TARVEX_SUCCESS);
    EXPECT_EQ(request_.attempts_made, 2);

    /* A kept-alive connection that dies is retried inside the client once;
     * start on a fresh one so that every drop is one attempt. */
    tarvex_dsi_rest_close_connections();
    settled_log(2);
    emulator->clear_log();
    emulator->fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":3,"drop":true})");
    request_.attempts = 3;
    tarvex_result_t result = tarvex_box_request(&box_, &request_);
    EXPECT_NE(result, TARVEX_SUCCESS);
    EXPECT_TRUE(tarvex_dsi_rest_error_is_retryable(result));
    EXPECT_EQ(request_.attempts_made, 3);
    EXPECT_EQ(settled_log(3).size(), 3u);
}

/* A refusal marked final is not retried even when Box says it may be. */
TEST_F(BoxRequest, FinalRefusalIsNotRetried)
{
    emulator->fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,
                        "status":429,"body":null})");
    root_listing().refusal_is_final = true;
    tarvex_object_t *error = peek(tarvex_box_request(&box_, &request_));
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), "TOO_BUSY");
    EXPECT_EQ(request_.attempts_made, 1);
}

/* The content request wants its 302 and the "Location" that comes with it;
 * any other answer below 400 goes through translation. */
TEST_F(BoxRequest, ExpectedStatusAndWantedHeaders)
{
    auto ids = emulator->seed(R"({"entries":[{"path":"/f.txt","type":"file","content":"hi"}]})");
    url_ = emulator->api_base() + "/2.0/files/" + ids["/f.txt"] + "/content";
    static const char *const wanted[] = {"Location"};
    request_.method = "GET";
    request_.url = url_.c_str();
    request_.attempts = 2;
    request_.retry = &box_.user_retry;
    request_.wanted_headers = wanted;
    request_.wanted_header_count = 1;
    request_.expected_status = 302;
    ASSERT_EQ(tarvex_box_request(&box_, &request_), TARVEX_SUCCESS);
    EXPECT_EQ(request_.response.response_code, 302);
    const char *location = tarvex_box_request_header(&request_, "location");
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(std::string(location).rfind(emulator->base_url(), 0), 0u) << location;
    EXPECT_STREQ(request_.response.desired_headers.key_value[0].key, "Retry-After");

    /* A 200 with a JSON body that is no Box error: no code, so 500. */
    tarvex_box_request_release(&request_);
    root_listing().expected_status = 302;
    tarvex_object_t *error = peek(tarvex_box_request(&box_, &request_));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), 500);
    EXPECT_EQ(request_.attempts_made, 1);
}

} // namespace
