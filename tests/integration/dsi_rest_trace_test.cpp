// The TRACE level shows an exchange's header lines with the values of
// credential headers hidden, and nothing when TRACE is off.
#include <cstdlib>
#include <sstream>

#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestTrace : public ServerTest {};

// The debug stream of one request with a bearer token, TRACE on or off.
std::string traced(const std::string &url, const char *levels)
{
    std::string file = make_temp_dir() + "/trace";
    tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
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

TEST_F(RestTrace, HeadersShownCredentialsHidden)
{
    std::string on = traced(server->url("/echo"), "TRACE");
    EXPECT_NE(on.find("> Authorization: <hidden>"), std::string::npos) << on;
    EXPECT_NE(on.find("> Host: 127.0.0.1"), std::string::npos) << on;
    EXPECT_EQ(on.find("s3cret"), std::string::npos) << on;
    EXPECT_EQ(traced(server->url("/echo"), "ERROR"), "");
}

} // namespace
