// Unit tests of the REST client's pure pieces: query encoding, header
// plans, boundaries, multipart framing, response-head parsing, the stock
// response record, error classification.
#include <gtest/gtest.h>

#include <cstring>

#include "dsi_rest_internal.h"

using namespace tarvex_dsi_rest_internal;

namespace {

class Activated : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0); }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_dsi_rest_module); }
};
::testing::Environment *const activated = ::testing::AddGlobalTestEnvironment(new Activated);

TEST(RestQuery, EncodesPairsAndLeavesOutMissingValues)
{
    tarvex_dsi_rest_key_value_t pairs[] = {
        {"fields", "type,id"}, {"marker", nullptr}, {"a b", "x&y=z"}, {"u", "\xc3\xa9~-._"}};
    tarvex_dsi_rest_key_array_t query = {4, pairs};
    EXPECT_EQ(url_with_query("http://h/p", &query),
              "http://h/p?fields=type%2Cid&a%20b=x%26y%3Dz&u=%C3%A9~-._");
    EXPECT_EQ(url_with_query("http://h/p?k=1", &query).substr(0, 27),
              "http://h/p?k=1&fields=type%");
    tarvex_dsi_rest_key_value_t only_missing[] = {{"marker", nullptr}};
    tarvex_dsi_rest_key_array_t none = {1, only_missing};
    EXPECT_EQ(url_with_query("http://h/p", &none), "http://h/p");
    EXPECT_EQ(url_with_query("http://h/p", nullptr), "http://h/p");
    EXPECT_EQ(url_for_messages("https://h/a/b?token=secret#f"), "https://h/a/b");
}

TEST(RestHeaders, PlanTurnsEmptyValuesIntoRemovals)
{
    tarvex_dsi_rest_key_value_t pairs[] = {{"Authorization", "Bearer t"},
                                           {"Content-Length", " 42 "},
                                           {"Transfer-Encoding", ""},
                                           {"content-type", "multipart/form-data; boundary=b"},
                                           {nullptr, "ignored"}};
    tarvex_dsi_rest_key_array_t headers = {5, pairs};
    HeaderPlan plan;
    ASSERT_TRUE(plan_headers(&headers, &plan));
    std::vector<std::string> expected = {"Authorization: Bearer t", "Content-Length: 42",
                                         "Transfer-Encoding:",
                                         "content-type: multipart/form-data; boundary=b"};
    EXPECT_EQ(plan.lines, expected);
    EXPECT_EQ(plan.content_length, 42u);
    EXPECT_TRUE(plan.has_content_type);
    EXPECT_FALSE(plan.has_expect);

    for (const char *bad_value : {"12a", "-1", "1\r\nX: y"}) {
        tarvex_dsi_rest_key_value_t bad[] = {{"Content-Length", bad_value}};
        tarvex_dsi_rest_key_array_t list = {1, bad};
        HeaderPlan refused;
        EXPECT_FALSE(plan_headers(&list, &refused)) << bad_value;
    }
}

TEST(RestHeaders, NamesMatchIgnoringCaseAndBoundariesAreFound)
{
    EXPECT_TRUE(header_name_equals("Retry-After", "retry-after"));
    EXPECT_FALSE(header_name_equals("Retry-After", "Retry-Afte"));
    const std::vector<std::pair<const char *, const char *>> cases = {
        {"multipart/form-data; boundary=tarvex_1234", "tarvex_1234"},
        {"multipart/form-data;charset=x; BOUNDARY=\"q b\"", "q b"},
        {"multipart/form-data; boundary=x ; charset=y", "x"},
        {"multipart/form-data", ""},
        {"text/plain; boundaryx=1", ""},
    };
    for (auto &[type, boundary] : cases)
        EXPECT_EQ(boundary_of(type), boundary) << type;
}

// Runs a stock writer to the end in pieces of `step` bytes, inside a
// request context whose Content-Type is `content_type`.
std::string drain(tarvex_dsi_rest_data_write_t writer, void *arg, const char *content_type,
                  size_t step, std::optional<uint64_t> *length)
{
    RequestContext ctx("POST", "http://h/u", nullptr);
    ctx.content_type = content_type;
    *length = known_body_length(ctx, writer, arg);
    std::string out;
    std::vector<char> buffer(step);
    for (int guard = 0; guard < 100000; guard++) {
        size_t n = 0;
        EXPECT_EQ(writer(arg, buffer.data(), step, &n), TARVEX_SUCCESS);
        if (n == 0)
            break;
        out.append(buffer.data(), n);
    }
    return out;
}

TEST(RestMultipart, FramesPartsWithTheBoundaryAndKnowsTheLength)
{
    std::string a = "{\"name\":\"x\"}", b = "bytes\r\n--not-a-boundary";
    tarvex_dsi_rest_write_block_arg_t block_a{a.data(), a.size()}, block_b{b.data(), b.size()};
    tarvex_dsi_rest_key_value_t ha[] = {{"Content-Disposition", "form-data; name=\"attributes\""}};
    tarvex_dsi_rest_key_value_t hb[] = {{"Content-Disposition", "form-data; name=\"file\""},
                                        {"Content-Type", "application/octet-stream"}};
    tarvex_dsi_rest_write_part_t parts[] = {{{1, ha}, tarvex_dsi_rest_write_block, &block_a},
                                            {{2, hb}, tarvex_dsi_rest_write_block, &block_b}};
    tarvex_dsi_rest_multipart_arg_t multipart{2, parts};
    const std::string expected =
        "--BND\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n" + a +
        "\r\n--BND\r\nContent-Disposition: form-data; name=\"file\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n" +
        b + "\r\n--BND--\r\n";
    for (size_t step : {1, 7, 64, 4096}) {
        std::optional<uint64_t> length;
        std::string body = drain(tarvex_dsi_rest_write_multipart, &multipart,
                                 "multipart/form-data; boundary=BND", step, &length);
        EXPECT_EQ(body, expected) << step;
        EXPECT_EQ(length, expected.size());
    }

    tarvex_dsi_rest_multipart_arg_t empty{0, nullptr};
    std::optional<uint64_t> length;
    EXPECT_EQ(drain(tarvex_dsi_rest_write_multipart, &empty, "multipart/form-data; boundary=E",
                    16, &length),
              "--E--\r\n");

    RequestContext ctx("POST", "http://h/u", nullptr);
    char buffer[16];
    size_t n = 0;
    EXPECT_NE(tarvex_dsi_rest_write_multipart(&multipart, buffer, sizeof buffer, &n),
              TARVEX_SUCCESS); // no boundary to frame with
}

TEST(RestWriters, StockWritersStartOverForEachRequest)
{
    std::string data = "0123456789";
    tarvex_dsi_rest_write_block_arg_t block{data.data(), data.size()};
    json_t *doc = json_pack("{s:[i,i]}", "k", 1, 2);
    for (int request = 0; request < 2; request++) {
        std::optional<uint64_t> length;
        EXPECT_EQ(drain(tarvex_dsi_rest_write_block, &block, "", 3, &length), data);
        EXPECT_EQ(length, data.size());
        EXPECT_EQ(drain(tarvex_dsi_rest_write_json, doc, "", 5, &length), "{\"k\":[1,2]}");
        EXPECT_EQ(length, 11u);
    }
    json_decref(doc);
    char buffer[4];
    size_t n = 0;
    EXPECT_NE(tarvex_dsi_rest_write_block(&block, buffer, 4, &n), TARVEX_SUCCESS); // no request
    EXPECT_NE(tarvex_dsi_rest_read_json(nullptr, buffer, 4), TARVEX_SUCCESS);
}

struct Seen {
    int calls = 0;
    int code = 0;
    std::string status;
    std::vector<std::pair<std::string, std::string>> headers;
};

tarvex_result_t remember(void *arg, int code, const char *status,
                         const tarvex_dsi_rest_key_array_t *headers)
{
    auto *seen = static_cast<Seen *>(arg);
    seen->calls++;
    seen->code = code;
    seen->status = status;
    for (size_t i = 0; i < headers->count; i++)
        seen->headers.emplace_back(headers->key_value[i].key, headers->key_value[i].value);
    return TARVEX_SUCCESS;
}

TEST(RestResponseHead, InterimAnswersAreSkippedAndTheFinalHeadDeliveredOnce)
{
    Seen seen;
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = remember;
    callbacks.response_callback_arg = &seen;
    RequestContext ctx("PUT", "http://h/u", &callbacks);
    for (std::string line : {"HTTP/1.1 100 Continue\r\n", "\r\n", "HTTP/1.1 201 Created\r\n",
                             "Location:  /x \r\n", "X-Long: a\r\n", "\t b\r\n", "\r\n",
                             "X-Trailer: late\r\n", "\r\n"})
        ASSERT_EQ(header_callback(line.data(), 1, line.size(), &ctx), line.size());
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.code, 201);
    EXPECT_EQ(seen.status, "HTTP/1.1 201 Created");
    std::vector<std::pair<std::string, std::string>> expected = {{"Location", "/x"},
                                                                 {"X-Long", "a b"}};
    EXPECT_EQ(seen.headers, expected);
}

TEST(RestResponseHead, StockRecordFillsWantedHeadersCaseInsensitively)
{
    tarvex_dsi_rest_key_value_t want[] = {{"retry-after", nullptr}, {"Location", nullptr},
                                          {"X-Absent", nullptr}};
    tarvex_dsi_rest_response_arg_t record{};
    record.desired_headers = {3, want};
    tarvex_dsi_rest_key_value_t got[] = {{"Retry-After", " 7\r\n"},
                                         {"LOCATION", "https://dl/1"},
                                         {"location", "https://dl/2"}};
    tarvex_dsi_rest_key_array_t headers = {3, got};
    for (int attempt = 0; attempt < 2; attempt++) // a second answer replaces the first
        ASSERT_EQ(tarvex_dsi_rest_response(&record, 429, "HTTP/1.1 429", &headers),
                  TARVEX_SUCCESS);
    EXPECT_EQ(record.response_code, 429);
    EXPECT_STREQ(want[0].value, "7");
    EXPECT_STREQ(want[1].value, "https://dl/1");
    EXPECT_EQ(want[2].value, nullptr);
    tarvex_dsi_rest_response_arg_clear(&record);
    EXPECT_EQ(record.response_code, 0);
    EXPECT_EQ(want[0].value, nullptr);
    EXPECT_STREQ(want[0].key, "retry-after");
}

TEST(RestErrors, OnlyTransportAndTimeoutAreRetryable)
{
    const std::vector<std::pair<CURLcode, bool>> codes = {
        {CURLE_COULDNT_CONNECT, true},      {CURLE_OPERATION_TIMEDOUT, true},
        {CURLE_PARTIAL_FILE, true},         {CURLE_SEND_ERROR, true},
        {CURLE_RECV_ERROR, true},           {CURLE_GOT_NOTHING, true},
        {CURLE_COULDNT_RESOLVE_HOST, false}, {CURLE_PEER_FAILED_VERIFICATION, false},
        {CURLE_SSL_CONNECT_ERROR, false},   {CURLE_UNSUPPORTED_PROTOCOL, false},
    };
    for (auto [code, retryable] : codes) {
        tarvex_result_t r = transport_error(code, "detail", "GET", "http://h/p");
        EXPECT_EQ(tarvex_dsi_rest_error_is_retryable(r), retryable) << curl_easy_strerror(code);
        tarvex_object_free(tarvex_error_get(r));
    }
    tarvex_result_t timeout = TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_TIMEOUT, nullptr, "t");
    EXPECT_TRUE(tarvex_dsi_rest_error_is_retryable(timeout));
    // A foreign error is wrapped as a callback error; ours pass through.
    tarvex_result_t foreign = tarvex_error_put(
        tarvex_error_construct_error(nullptr, nullptr, 1, __FILE__, __func__, __LINE__, "x"));
    tarvex_result_t wrapped = adopt_callback_error(foreign, "read", "http://h/p");
    EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(wrapped)), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(wrapped));
    EXPECT_EQ(adopt_callback_error(timeout, "progress", "http://h/p"), timeout);
}

} // namespace
