// Requests against the scripted server: methods, bodies, query and header
// handling, redirects, JSON answers, connection reuse.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestRequest : public ServerTest {};

// A writer of unknown length, 3 bytes a call: curl sends it chunked unless
// told a size.
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

TEST_F(RestRequest, MethodsCarryJsonBothWaysAndAnEncodedQuery)
{
    json_t *doc = json_pack("{s:s, s:i}", "name", "a b", "size", 7);
    for (const char *method : {"GET", "PUT", "POST", "DELETE"}) {
        SCOPED_TRACE(method);
        bool with_body = method[0] == 'P';
        Exchange ex({.method = method,
                     .url = server->url("/echo?k=1"),
                     .query = {{"fields", "type,id name"}, {"marker", nullptr},
                               {"q", "\xc3\xbc&=/?"}},
                     .headers = {{"Content-Type", "application/json"}},
                     .writer = with_body ? tarvex_dsi_rest_write_json : nullptr,
                     .writer_arg = doc});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.completed, TARVEX_SUCCESS);
        EXPECT_EQ(ex.status, 200);
        EXPECT_EQ(ex.text("method"), method);
        EXPECT_EQ(ex.text("query"), "k=1&fields=type%2Cid%20name&q=%C3%BC%26%3D%2F%3F");
        EXPECT_EQ(ex.echoed("Transfer-Encoding"), "-");
        EXPECT_EQ(ex.echoed("Expect"), "-");
        if (!with_body)
            continue;
        json_t *sent = json_loads(ex.text("body").c_str(), 0, nullptr);
        EXPECT_TRUE(json_equal(sent, doc));
        json_decref(sent);
        EXPECT_EQ(ex.echoed("Content-Length"), std::to_string(ex.text("body").size()));
        EXPECT_EQ(ex.uploaded, ex.text("body").size());
    }
    json_decref(doc);
}

TEST_F(RestRequest, EmptyHeaderValueRemovesItAndContentLengthSizesTheBody)
{
    struct Case {
        Pairs headers;
        bool chunked;
        const char *gone;
    };
    const Case cases[] = {
        {{}, true, "Content-Length"},
        {{{"Content-Length", "11"}, {"Transfer-Encoding", ""}}, false, "Transfer-Encoding"},
        {{{"Accept", ""}}, true, "Accept"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.gone);
        Chunks body{"hello world"};
        Exchange ex({.method = "POST", .url = server->url("/echo"), .headers = c.headers,
                     .writer = chunk_writer, .writer_arg = &body});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.text("body"), "hello world");
        EXPECT_EQ(json_is_true(json_object_get(ex.json, "chunked")), c.chunked);
        EXPECT_EQ(ex.echoed("Content-Length"), c.chunked ? "-" : "11");
        EXPECT_EQ(ex.echoed(c.gone), "-");
    }
}

TEST_F(RestRequest, RedirectReachesTheCallerWithItsHeaders)
{
    Exchange ex({.url = server->url("/status?code=302&h.Location=http://127.0.0.1:1/dl"
                                    "&h.retry-AFTER=+5+"),
                 .desired = {"Retry-After", "LOCATION", "X-Missing"}});
    ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    EXPECT_EQ(ex.status, 302);
    EXPECT_EQ(ex.wanted["LOCATION"], "http://127.0.0.1:1/dl");
    EXPECT_EQ(ex.wanted["Retry-After"], "5");
    EXPECT_EQ(ex.wanted["X-Missing"], "");
}

TEST_F(RestRequest, JsonReaderOnEmptyAndInvalidBodies)
{
    Exchange empty({.url = server->url("/status?code=200")});
    EXPECT_EQ(empty.result, TARVEX_SUCCESS);
    EXPECT_EQ(empty.json, nullptr);

    Exchange invalid({.url = server->url("/status?code=200&body=<html>")});
    EXPECT_EQ(invalid.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_FALSE(invalid.retryable());
    EXPECT_EQ(invalid.json, nullptr);

    // The status of an error answer matters more than its (HTML) page.
    Exchange error_page({.url = server->url("/status?code=503&body=<html>")});
    EXPECT_EQ(error_page.result, TARVEX_SUCCESS);
    EXPECT_EQ(error_page.status, 503);
}

TEST_F(RestRequest, KeepAliveReusesOneConnectionPerThread)
{
    tarvex_dsi_rest_close_connections();
    uint64_t before = tarvex_dsi_rest_connections_opened();
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(Exchange({.method = i % 2 ? "GET" : "DELETE", .url = server->url("/echo")})
                      .result,
                  TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 1u);
    std::thread([&] {
        EXPECT_EQ(Exchange({.url = server->url("/echo")}).result, TARVEX_SUCCESS);
    }).join();
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 2u);
}

} // namespace
