// Requests against the scripted server: methods, JSON bodies both ways, the
// query; the trace, and a cancelled operation's request.
#include <cstdlib>
#include <sstream>

#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestRequest : public ServerTest {};
class RestTrace : public ServerTest {};
class RestCancel : public ServerTest {};

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

// The debug stream of one request with a bearer token, TRACE on or off.
std::string traced(const std::string &url, const char *levels)
{
    std::string file = make_temp_dir() + "/trace";
    EXPECT_EQ(tarvex_module_deactivate(&tarvex_i_dsi_rest_module), 0);
    setenv("TARVEX_DSI_REST_DEBUG", (std::string(levels) + "," + file).c_str(), 1);
    EXPECT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
    EXPECT_EQ(Exchange({.url = url, .headers = {{"Authorization", "Bearer s3cret"}}}).result,
              TARVEX_SUCCESS);
    tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
    unsetenv("TARVEX_DSI_REST_DEBUG");
    EXPECT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    std::filesystem::remove_all(std::filesystem::path(file).parent_path());
    return text.str();
}

// The TRACE level shows an exchange's header lines with the values of
// credential headers hidden, and nothing when TRACE is off.
TEST_F(RestTrace, HeadersShownCredentialsHidden)
{
    std::string on = traced(server->url("/echo"), "TRACE");
    EXPECT_NE(on.find("> Authorization: <hidden>"), std::string::npos) << on;
    EXPECT_NE(on.find("> GET /echo HTTP/1.1\n"), std::string::npos) << on;
    EXPECT_EQ(on.find("s3cret"), std::string::npos) << on;
    EXPECT_EQ(traced(server->url("/echo"), "ERROR"), "");
}

// A request made for a cancelled server operation ends at once with a
// final error that names the request (its method, and its host when no
// credential went with it).
TEST_F(RestCancel, CancelledOperationEndsItsRequestByName)
{
    tarvex_gfs_operation_provider_t provider{};
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&provider, nullptr);
    ASSERT_NE(op, nullptr);
    tarvex_gfs_operation_t previous = tarvex_gfs_operation_set_current(op);
    tarvex_gfs_operation_cancel(op);
    const std::string url = server->url("/echo");
    Exchange ex({.url = url + "?sig=SECRET", .idle_ms = 60000});
    tarvex_gfs_operation_set_current(previous);
    tarvex_gfs_operation_destroy(op);
    EXPECT_NE(ex.result, TARVEX_SUCCESS);
    EXPECT_FALSE(ex.retryable());
    const std::string origin = url.substr(0, url.find('/', strlen("http://")));
    EXPECT_NE(ex.message().find("cancelled: GET " + origin), std::string::npos) << ex.message();
    EXPECT_EQ(ex.message().find("SECRET"), std::string::npos) << ex.message();
}

} // namespace
