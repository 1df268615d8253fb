// A request made for a cancelled server operation ends at once with a
// final error that names the request (its method, and its host when no
// credential went with it).
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestCancel : public ServerTest {};

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
