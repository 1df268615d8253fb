// The idle time-out ends a stalled exchange, not a slow one: a request body
// that trickles in from a slow source for longer than the limit, a byte at
// a time, is sent whole.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestIdle : public ServerTest {};

// One byte a call, each after `gap` (the pace of the slow source).
struct Trickle {
    size_t left;
    std::chrono::milliseconds gap;
};
tarvex_result_t trickle_writer(void *arg, char *buffer, size_t length, size_t *written)
{
    auto *t = static_cast<Trickle *>(arg);
    *written = 0;
    if (t->left == 0 || length == 0)
        return TARVEX_SUCCESS;
    std::this_thread::sleep_for(t->gap); // the source is slow, not stalled
    buffer[0] = 'x';
    *written = 1;
    t->left--;
    return TARVEX_SUCCESS;
}

TEST_F(RestIdle, SlowBodyOutlastsTheIdleLimit)
{
    Trickle slow{30, std::chrono::milliseconds(50)}; // 1.5 s against 500 ms
    Exchange ex({.method = "PUT", .url = server->url("/echo"),
                 .writer = trickle_writer, .writer_arg = &slow, .idle_ms = 500});
    EXPECT_EQ(ex.result, TARVEX_SUCCESS) << ex.message();
    EXPECT_EQ(ex.text("body"), std::string(30, 'x'));
}

} // namespace
