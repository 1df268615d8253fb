// Streaming response bodies into a server operation and request bodies out
// of one, with completions on the operation's own thread.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestStream : public ServerTest {};

TEST_F(RestStream, DownloadLandsAtItsOffsets)
{
    struct Case {
        size_t size;
        tarvex_off_t offset;
        size_t range_first; // not 0: a ranged answer (206)
    };
    // Sizes around the operation's 256 KiB buffers.
    const Case cases[] = {
        {0, 0, 0}, {5 * 1024 * 1024 + 123, 1000, 0}, {size_t{3} * 1024 * 1024, 100, 100}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        FakeOp op;
        tarvex_dsi_rest_gridftp_op_arg_t arg{op.op, c.offset, -1, false};
        std::string range = "bytes=" + std::to_string(c.range_first) + "-";
        Exchange ex({.url = server->url("/bytes?n=" + std::to_string(c.size)),
                     .headers = {{"Range", range.c_str()}},
                     .download = &arg});
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.status, c.range_first != 0 ? 206 : 200);
        size_t length = c.size - c.range_first;
        EXPECT_TRUE(arg.eof);
        EXPECT_EQ(arg.offset, c.offset + tarvex_off_t(length));
        std::lock_guard<std::mutex> lock(op.mutex);
        ASSERT_EQ(op.sink.size(), c.offset + length);
        EXPECT_TRUE(op.sink.substr(c.offset) == pattern(c.range_first, length));
        EXPECT_EQ(op.written.load(), length);
    }
}

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

// The operation's data as a request body, whole or up to a length, in
// reads of any size; a read that fails ends the request with its cause.
// (Inside a multipart body: RestResend's multipart_stream.)
TEST_F(RestStream, UploadSendsTheOperationsData)
{
    struct Case {
        size_t size;
        size_t chunk;
        tarvex_off_t length;
        bool fail_reads = false;
    };
    const Case cases[] = {
        {0, SIZE_MAX, -1},
        {3 * 1024 * 1024 + 7, 4096, -1}, // short reads: many completions per buffer
        {1000000, SIZE_MAX, 300000},
        {10000, SIZE_MAX, -1, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        FakeOp op;
        op.source = pattern(7, c.size);
        op.chunk = c.chunk;
        op.fail_reads = c.fail_reads;
        tarvex_dsi_rest_gridftp_op_arg_t arg{op.op, 0, c.length, false};
        Exchange ex({.method = "PUT", .url = server->url("/sink"),
                     .writer = tarvex_dsi_rest_write_gridftp_op, .writer_arg = &arg});
        EXPECT_EQ(arg.eof, !c.fail_reads);
        if (c.fail_reads) {
            EXPECT_EQ(ex.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
            EXPECT_EQ(ex.cause(), "reset");
            EXPECT_FALSE(ex.retryable());
            continue;
        }
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        size_t sent = c.length < 0 ? c.size : size_t(c.length);
        EXPECT_EQ(ex.text("sha1"), sha1_hex(op.source.substr(0, sent)));
        EXPECT_EQ(arg.offset, tarvex_off_t(sent));
    }
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
