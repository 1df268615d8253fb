// Closing a thread's connections between requests makes the next request
// open a new one (a reload or a thread's end relies on it).
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestConnectionClose : public ServerTest {};

TEST_F(RestConnectionClose, NextRequestOpensANewConnection)
{
    tarvex_dsi_rest_close_connections();
    uint64_t before = tarvex_dsi_rest_connections_opened();
    ASSERT_EQ(Exchange({.url = server->url("/echo")}).result, TARVEX_SUCCESS);
    tarvex_dsi_rest_close_connections();
    ASSERT_EQ(Exchange({.url = server->url("/echo")}).result, TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 2u);
}

} // namespace
