// Requests against the scripted server: methods and bodies, query and
// header handling, redirects, response headers, connection reuse.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestRequest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server = new ScriptServer(); }
    static void TearDownTestSuite() { delete server; }
    void SetUp() override { ASSERT_TRUE(server->running()); }
    static ScriptServer *server;
};
ScriptServer *RestRequest::server = nullptr;

// A writer of unknown length: curl must send it chunked unless told a size.
struct Chunks {
    std::string data;
    size_t position = 0;
};
tarvex_result_t chunk_writer(void *arg, char *buffer, size_t length, size_t *written)
{
    auto *c = static_cast<Chunks *>(arg);
    *written = std::min<size_t>({length, 3, c->data.size() - c->position});
    memcpy(buffer, c->data.data() + c->position, *written);
    c->position += *written;
    return TARVEX_SUCCESS;
}

TEST_F(RestRequest, MethodsCarryJsonBothWays)
{
    json_t *doc = json_pack("{s:s, s:i}", "name", "a b", "size", 7);
    for (const char *method : {"GET", "PUT", "POST", "DELETE"}) {
        SCOPED_TRACE(method);
        bool with_body = strcmp(method, "PUT") == 0 || strcmp(method, "POST") == 0;
        Exchange ex;
        make_request(ex, method, server->url("/echo"), {},
                     {{"Content-Type", "application/json;"}},
                     with_body ? Body{tarvex_dsi_rest_write_json, doc} : Body{});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.status, 200);
        EXPECT_EQ(ex.text("method"), method);
        auto headers = echoed_headers(ex);
        EXPECT_EQ(headers.count("Transfer-Encoding"), 0u);
        EXPECT_EQ(headers.count("Expect"), 0u);
        if (!with_body)
            continue;
        json_t *sent = json_loads(ex.text("body").c_str(), 0, nullptr);
        EXPECT_TRUE(json_equal(sent, doc));
        json_decref(sent);
        EXPECT_EQ(headers["Content-Length"], std::to_string(ex.text("body").size()));
        EXPECT_EQ(headers["Content-Type"], "application/json;");
        EXPECT_EQ(ex.uploaded, ex.text("body").size());
    }
    json_decref(doc);
}

TEST_F(RestRequest, QueryIsEncodedAndSkipsMissingValues)
{
    Exchange ex;
    make_request(ex, "GET", server->url("/echo"),
                 {{"fields", "type,id name"}, {"marker", nullptr}, {"q", "\xc3\xbc&=/?"},
                  {"limit", "300"}});
    ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    EXPECT_EQ(ex.text("query"), "fields=type%2Cid%20name&q=%C3%BC%26%3D%2F%3F&limit=300");
}

TEST_F(RestRequest, EmptyHeaderValueRemovesAndContentLengthSizesTheBody)
{
    struct Case {
        Pairs headers;
        bool chunked;
        const char *absent;
    };
    const std::vector<Case> cases = {
        {{}, true, nullptr},
        {{{"Content-Length", "11"}, {"Transfer-Encoding", ""}}, false, nullptr},
        {{{"Accept", ""}}, true, "Accept"},
    };
    for (const Case &c : cases) {
        Chunks body{"hello world"};
        Exchange ex;
        make_request(ex, "POST", server->url("/echo"), {}, c.headers, {chunk_writer, &body});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.text("body"), "hello world");
        EXPECT_EQ(json_is_true(json_object_get(ex.json, "chunked")), c.chunked);
        auto headers = echoed_headers(ex);
        if (!c.chunked) {
            EXPECT_EQ(headers["Content-Length"], "11");
        }
        if (c.absent != nullptr) {
            EXPECT_EQ(headers.count(c.absent), 0u);
        }
    }
}

TEST_F(RestRequest, InterimContinueAnswerIsNotTheResponse)
{
    // A caller that asks for 100-continue gets it; the final answer counts.
    std::string text(200000, 'c');
    tarvex_dsi_rest_write_block_arg_t block{text.data(), text.size()};
    Exchange ex;
    make_request(ex, "PUT", server->url("/echo"), {}, {{"Expect", "100-continue"}},
                 {tarvex_dsi_rest_write_block, &block});
    ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    EXPECT_EQ(ex.status, 200);
    EXPECT_EQ(echoed_headers(ex)["Expect"], "100-continue");
    EXPECT_EQ(ex.text("body"), text);
}

TEST_F(RestRequest, RedirectReachesTheCallerWithItsHeaders)
{
    Exchange ex;
    make_request(ex, "GET",
                 server->url("/status?code=302&h.Location=http://127.0.0.1:1/dl&h.retry-AFTER=+5+"),
                 {}, {}, {}, {"Retry-After", "LOCATION", "X-Missing"});
    ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    EXPECT_EQ(ex.status, 302);
    EXPECT_EQ(ex.wanted["LOCATION"], "http://127.0.0.1:1/dl");
    EXPECT_EQ(ex.wanted["Retry-After"], "5");
    EXPECT_EQ(ex.wanted["X-Missing"], "");
}

TEST_F(RestRequest, JsonReaderOnEmptyAndInvalidBodies)
{
    Exchange empty, invalid, error_page;
    make_request(empty, "GET", server->url("/status?code=200"));
    EXPECT_EQ(empty.result, TARVEX_SUCCESS);
    EXPECT_EQ(empty.json, nullptr);

    make_request(invalid, "GET", server->url("/status?code=200&body=<html>"));
    EXPECT_NE(invalid.result, TARVEX_SUCCESS);
    EXPECT_EQ(invalid.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_FALSE(invalid.retryable());
    EXPECT_EQ(invalid.json, nullptr);

    // The status of an error answer matters more than its (HTML) page.
    make_request(error_page, "GET", server->url("/status?code=503&body=<html>"));
    EXPECT_EQ(error_page.result, TARVEX_SUCCESS);
    EXPECT_EQ(error_page.status, 503);
}

TEST_F(RestRequest, MultipartIsFramedWithTheContentTypeBoundary)
{
    std::string attributes = R"({"name":"f.txt","parent":{"id":"0"}})";
    tarvex_dsi_rest_write_block_arg_t block{attributes.data(), attributes.size()};
    Chunks file{"file\r\ndata"};
    Pairs attr_headers = {{"Content-Disposition", "form-data; name=\"attributes\""}};
    Pairs file_headers = {{"Content-Disposition", "form-data; name=\"file\"; filename=\"f.txt\""},
                          {"Content-Type", "application/octet-stream"}};
    KeyArray ah(attr_headers), fh(file_headers);
    const std::string expected = "--tarvex_B\r\n"
                                 "Content-Disposition: form-data; name=\"attributes\"\r\n\r\n" +
                                 attributes +
                                 "\r\n--tarvex_B\r\n"
                                 "Content-Disposition: form-data; name=\"file\"; "
                                 "filename=\"f.txt\"\r\n"
                                 "Content-Type: application/octet-stream\r\n\r\n"
                                 "file\r\ndata\r\n--tarvex_B--\r\n";
    // Once with a streamed part (chunked), once with sized parts only.
    for (bool streamed : {true, false}) {
        SCOPED_TRACE(streamed);
        file.position = 0;
        tarvex_dsi_rest_write_block_arg_t file_block{file.data.data(), file.data.size()};
        tarvex_dsi_rest_write_part_t parts[2] = {
            {ah.array, tarvex_dsi_rest_write_block, &block},
            {fh.array, streamed ? chunk_writer : tarvex_dsi_rest_write_block,
             streamed ? static_cast<void *>(&file) : &file_block}};
        tarvex_dsi_rest_multipart_arg_t multipart{2, parts};
        Exchange ex;
        make_request(ex, "POST", server->url("/echo"), {},
                     {{"Content-Type", "multipart/form-data; boundary=tarvex_B"}},
                     {tarvex_dsi_rest_write_multipart, &multipart});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.text("body"), expected);
        EXPECT_EQ(json_is_true(json_object_get(ex.json, "chunked")), streamed);
    }
}

TEST_F(RestRequest, KeepAliveReusesOneConnection)
{
    tarvex_dsi_rest_close_connections();
    uint64_t before = tarvex_dsi_rest_connections_opened();
    for (int i = 0; i < 100; i++) {
        Exchange ex;
        make_request(ex, i % 2 ? "GET" : "DELETE", server->url("/echo"));
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    }
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 1u);

    // Another thread has connections of its own.
    std::thread([&] {
        Exchange ex;
        make_request(ex, "GET", server->url("/echo"));
        EXPECT_EQ(ex.result, TARVEX_SUCCESS);
    }).join();
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 2u);
}

TEST_F(RestRequest, CallbackFailuresEndTheRequestAndAreFinal)
{
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = [](void *, int, const char *,
                                     const tarvex_dsi_rest_key_array_t *) -> tarvex_result_t {
        return tarvex_error_put(tarvex_error_construct_error(nullptr, nullptr, 9, __FILE__,
                                                             __func__, __LINE__, "refused"));
    };
    tarvex_result_t completed = 1;
    callbacks.complete_callback = [](void *arg, tarvex_result_t r) {
        *static_cast<tarvex_result_t *>(arg) = r;
    };
    callbacks.complete_callback_arg = &completed;
    tarvex_result_t result =
        tarvex_dsi_rest_request("GET", server->url("/bytes?n=100000").c_str(), nullptr, nullptr,
                                &callbacks);
    ASSERT_NE(result, TARVEX_SUCCESS);
    EXPECT_EQ(completed, result);
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(result));
    tarvex_object_t *error = tarvex_error_get(result);
    EXPECT_EQ(tarvex_error_get_type(error), TARVEX_DSI_REST_ERROR_CALLBACK);
    ASSERT_NE(tarvex_error_get_cause(error), nullptr);
    EXPECT_STREQ(tarvex_error_get_message(tarvex_error_get_cause(error)), "refused");
    tarvex_object_free(error);
}

} // namespace
