// Streaming response bodies into a server operation and request bodies out
// of one, with completions on the operation's own thread.  (The bytes
// themselves, at their offsets and in ranges, are the Box download and
// upload tests': they go through the same callbacks.)
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestStream : public ServerTest {};

TEST_F(RestStream, ErrorPagesAndFailedWritesNeverCountAsData)
{
    FakeOp op;
    tarvex_dsi_rest_gridftp_op_arg_t arg{op.op, 0, -1, false};
    Exchange page({.url = server->url("/status?code=404&body=not+found"), .download = &arg});
    ASSERT_EQ(page.result, TARVEX_SUCCESS);
    EXPECT_EQ(page.status, 404);
    EXPECT_FALSE(arg.eof);
    EXPECT_EQ(op.writes, 0);

    FakeOp failing;
    failing.fail_write = 2;
    tarvex_dsi_rest_gridftp_op_arg_t cut_arg{failing.op, 0, -1, false};
    Exchange cut({.url = server->url("/bytes?n=4000000"), .download = &cut_arg});
    EXPECT_EQ(cut.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_FALSE(cut.retryable());
    EXPECT_EQ(cut.cause(), "data channel closed");
    EXPECT_FALSE(cut_arg.eof);
}

// While the request waits on a stalled data channel, curl's thread waits
// with it, so only the client itself asks the progress callback, once a
// second; a refusal then ends the request as the progress callback's
// failure, not as the read that was waiting.
TEST_F(RestStream, ProgressCallbackMayEndAWaitOnTheDataChannel)
{
    FakeOp op;
    op.source = pattern(0, 1000);
    op.stall_reads = true;
    tarvex_dsi_rest_gridftp_op_arg_t arg{op.op, 0, -1, false};
    auto refuse_while_stalled = [](void *stalled, uint64_t, uint64_t, uint64_t, uint64_t) {
        return *static_cast<std::atomic<bool> *>(stalled) ? test_failure("stop") : TARVEX_SUCCESS;
    };
    Exchange ex({.method = "PUT",
                 .url = server->url("/sink"),
                 .writer = tarvex_dsi_rest_write_gridftp_op,
                 .writer_arg = &arg,
                 .progress = refuse_while_stalled,
                 .progress_arg = &op.stalled});
    EXPECT_EQ(ex.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_EQ(ex.message().rfind("The progress callback failed", 0), 0u) << ex.message();
    EXPECT_EQ(ex.cause(), "stop");
}

} // namespace
