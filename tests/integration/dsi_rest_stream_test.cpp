// Streaming response bodies into a server operation and request bodies out
// of one, with completions on the operation's own thread.
#include <openssl/sha.h>

#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestStream : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server = new ScriptServer(); }
    static void TearDownTestSuite() { delete server; }
    void SetUp() override { ASSERT_TRUE(server->running()); }
    static ScriptServer *server;

    // A GET whose body goes to the operation at `offset`.
    static tarvex_result_t download(const std::string &url, FakeOp &op,
                                    tarvex_dsi_rest_gridftp_op_arg_t &arg, int *status,
                                    const Pairs &headers = {})
    {
        KeyArray h(headers);
        tarvex_dsi_rest_response_arg_t record{};
        tarvex_dsi_rest_callbacks_t callbacks{};
        callbacks.response_callback = tarvex_dsi_rest_response;
        callbacks.response_callback_arg = &record;
        callbacks.data_read_callback = tarvex_dsi_rest_read_gridftp_op;
        callbacks.data_read_callback_arg = &arg;
        arg.op = op.op;
        tarvex_result_t result = tarvex_dsi_rest_request(
            "GET", url.c_str(), nullptr, headers.empty() ? nullptr : &h.array, &callbacks);
        *status = record.response_code;
        return result;
    }

    // A PUT of the operation's data to the sink route; returns its answer.
    static void upload(Exchange &ex, FakeOp &op, tarvex_dsi_rest_gridftp_op_arg_t &arg)
    {
        arg.op = op.op;
        make_request(ex, "PUT", server->url("/sink"), {}, {},
                     {tarvex_dsi_rest_write_gridftp_op, &arg});
    }
};
ScriptServer *RestStream::server = nullptr;

std::string sha1_hex(const std::string &data)
{
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(data.data()), data.size(), digest);
    char text[2 * SHA_DIGEST_LENGTH + 1];
    for (int i = 0; i < SHA_DIGEST_LENGTH; i++)
        snprintf(text + 2 * i, 3, "%02x", digest[i]);
    return text;
}

TEST_F(RestStream, DownloadLandsAtTheRangeOffset)
{
    struct Case {
        size_t size;
        tarvex_off_t offset;
        const char *range;
        size_t first;
    };
    // Sizes around the operation's 256 KiB buffers; a ranged answer (206).
    const std::vector<Case> cases = {
        {0, 0, nullptr, 0},
        {1, 0, nullptr, 0},
        {256 * 1024, 0, nullptr, 0},
        {5 * 1024 * 1024 + 123, 1000, nullptr, 0},
        {3 * 1024 * 1024, 100, "bytes=100-", 100},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        FakeOp op;
        tarvex_dsi_rest_gridftp_op_arg_t arg{nullptr, c.offset, -1, false};
        int status = 0;
        Pairs headers;
        if (c.range != nullptr)
            headers.push_back({"Range", c.range});
        tarvex_result_t result =
            download(server->url("/bytes?n=" + std::to_string(c.size)), op, arg, &status, headers);
        ASSERT_EQ(result, TARVEX_SUCCESS);
        size_t length = c.size - c.first;
        EXPECT_TRUE(arg.eof);
        EXPECT_EQ(arg.offset, c.offset + static_cast<tarvex_off_t>(length));
        std::lock_guard<std::mutex> lock(op.mutex);
        ASSERT_EQ(op.sink.size(), static_cast<size_t>(c.offset) + length);
        EXPECT_TRUE(op.sink.substr(c.offset) == pattern(c.first, length));
        EXPECT_EQ(op.bytes_written_reported, length);
        if (length > 0) {
            EXPECT_EQ(op.lowest_offset, c.offset);
        }
    }
}

TEST_F(RestStream, ErrorPagesAndFailedWritesNeverCountAsData)
{
    FakeOp op;
    tarvex_dsi_rest_gridftp_op_arg_t arg{nullptr, 0, -1, false};
    int status = 0;
    ASSERT_EQ(download(server->url("/status?code=404&body=not+found"), op, arg, &status),
              TARVEX_SUCCESS);
    EXPECT_EQ(status, 404);
    EXPECT_FALSE(arg.eof);
    EXPECT_EQ(op.writes, 0);

    FakeOp failing;
    failing.fail_write_number = 2;
    tarvex_dsi_rest_gridftp_op_arg_t arg2{nullptr, 0, -1, false};
    tarvex_result_t result = download(server->url("/bytes?n=4000000"), failing, arg2, &status);
    ASSERT_NE(result, TARVEX_SUCCESS);
    EXPECT_FALSE(arg2.eof);
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(result));
    tarvex_object_t *error = tarvex_error_get(result);
    EXPECT_EQ(tarvex_error_get_type(error), TARVEX_DSI_REST_ERROR_CALLBACK);
    ASSERT_NE(tarvex_error_get_cause(error), nullptr);
    EXPECT_STREQ(tarvex_error_get_message(tarvex_error_get_cause(error)), "data channel closed");
    tarvex_object_free(error);
}

TEST_F(RestStream, UploadSendsTheOperationsData)
{
    struct Case {
        size_t size;
        size_t chunk;
        tarvex_off_t length;
    };
    const std::vector<Case> cases = {
        {0, SIZE_MAX, -1},
        {3 * 1024 * 1024 + 7, SIZE_MAX, -1},
        {1000000, 4096, -1},  // short reads: many completions per buffer
        {1000000, SIZE_MAX, 300000},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        FakeOp op;
        op.source = pattern(7, c.size);
        op.chunk = c.chunk;
        tarvex_dsi_rest_gridftp_op_arg_t arg{nullptr, 0, c.length, false};
        Exchange ex;
        upload(ex, op, arg);
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        size_t sent = c.length < 0 ? c.size : static_cast<size_t>(c.length);
        EXPECT_EQ(json_integer_value(json_object_get(ex.json, "length")),
                  static_cast<json_int_t>(sent));
        EXPECT_EQ(ex.text("sha1"), sha1_hex(op.source.substr(0, sent)));
        EXPECT_TRUE(arg.eof);
        EXPECT_EQ(arg.offset, static_cast<tarvex_off_t>(sent));
    }
}

TEST_F(RestStream, UploadInsideMultipartAndReadFailure)
{
    FakeOp op;
    op.source = pattern(0, 700000);
    tarvex_dsi_rest_gridftp_op_arg_t arg{op.op, 0, -1, false};
    Pairs part_headers = {{"Content-Disposition", "form-data; name=\"file\""}};
    KeyArray ph(part_headers);
    tarvex_dsi_rest_write_part_t part = {ph.array, tarvex_dsi_rest_write_gridftp_op, &arg};
    tarvex_dsi_rest_multipart_arg_t multipart{1, &part};
    Exchange ex;
    make_request(ex, "POST", server->url("/sink"), {},
                 {{"Content-Type", "multipart/form-data; boundary=tarvex_X"}},
                 {tarvex_dsi_rest_write_multipart, &multipart});
    ASSERT_EQ(ex.result, TARVEX_SUCCESS);
    std::string framed = "--tarvex_X\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\n" +
                         op.source + "\r\n--tarvex_X--\r\n";
    EXPECT_EQ(ex.text("sha1"), sha1_hex(framed));
    EXPECT_EQ(op.bytes_recvd_reported, op.source.size());

    FakeOp failing;
    failing.source = pattern(0, 10000);
    failing.fail_reads = true;
    tarvex_dsi_rest_gridftp_op_arg_t arg2{nullptr, 0, -1, false};
    Exchange bad;
    upload(bad, failing, arg2);
    EXPECT_EQ(bad.error_type(), TARVEX_DSI_REST_ERROR_CALLBACK);
    EXPECT_FALSE(bad.retryable());
    EXPECT_FALSE(arg2.eof);
}

} // namespace
