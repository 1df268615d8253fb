// Exactly one HTTP request per call: a kept-alive connection that dies
// before answering costs the call (a retryable failure), and no request,
// body or stream is ever sent a second time behind the caller's back.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestResend : public ServerTest {};

enum class Kind { json, stream, multipart_stream };

/* A request body of one kind, with what the server should see of it. */
struct Body {
    explicit Body(Kind body_kind) : kind(body_kind)
    {
        switch (kind) {
        case Kind::json:
            method = "POST";
            document = json_pack("{s:s, s:{s:s}}", "name", "m", "parent", "id", "0");
            expected = compact();
            writer = tarvex_dsi_rest_write_json;
            arg = document;
            break;
        case Kind::stream:
        case Kind::multipart_stream:
            op.source = pattern(11, 300000);
            stream = {op.op, 0, -1, false};
            writer = tarvex_dsi_rest_write_gridftp_op;
            arg = &stream;
            expected = op.source;
            if (kind == Kind::stream)
                break;
            method = "POST";
            part = {part_headers.array, tarvex_dsi_rest_write_gridftp_op, &stream};
            multipart = {1, &part};
            writer = tarvex_dsi_rest_write_multipart;
            arg = &multipart;
            headers = {{"Content-Type", "multipart/form-data; boundary=B"}};
            expected = "--B\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\n" +
                       op.source + "\r\n--B--\r\n";
            break;
        }
    }
    ~Body() { json_decref(document); }
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;

    Exchange send(const std::string &url)
    {
        return Exchange({.method = method, .url = url, .headers = headers, .writer = writer,
                         .writer_arg = arg});
    }

    Kind kind;
    const char *method = "PUT";
    std::string expected; // the body as the server must receive it
    tarvex_dsi_rest_data_write_t writer = nullptr;
    void *arg = nullptr;
    Pairs headers;
    json_t *document = nullptr;
    FakeOp op;
    tarvex_dsi_rest_gridftp_op_arg_t stream{};
    KeyArray part_headers{Pairs{{"Content-Disposition", "form-data; name=\"file\""}}};
    tarvex_dsi_rest_write_part_t part{};
    tarvex_dsi_rest_multipart_arg_t multipart{};

private:
    std::string compact()
    {
        char *text = json_dumps(document, JSON_COMPACT);
        std::string out = text;
        free(text);
        return out;
    }
};

// A body in memory, the data channel's, and the data channel's in a
// multipart body: each is a different way a resend could repeat it.
const Kind all_kinds[] = {Kind::json, Kind::stream, Kind::multipart_stream};

// The server reads the request whole, then closes without a word: libcurl
// would send it again on a fresh connection, 1 ms later and unpaced.
TEST_F(RestResend, ADroppedRequestOnAKeptAliveConnectionIsSentOnce)
{
    for (Kind kind : all_kinds) {
        SCOPED_TRACE(int(kind));
        ASSERT_EQ(Exchange({.url = server->url("/echo")}).result, TARVEX_SUCCESS);
        size_t mark = server->log().size();
        Body body(kind);
        Exchange ex = body.send(server->url("/stall?ms=0"));
        EXPECT_EQ(ex.error_type(), TARVEX_DSI_REST_ERROR_TRANSPORT);
        EXPECT_TRUE(ex.retryable());
        std::vector<LogLine> seen = server->log();
        seen.erase(seen.begin(), seen.begin() + std::ptrdiff_t(mark));
        EXPECT_EQ(seen.size(), 1u);
        for (const LogLine &line : seen) {
            EXPECT_EQ(line.body_length, body.expected.size());
            EXPECT_EQ(line.body_sha1, sha1_hex(body.expected));
        }
        // What the data channel gave was asked for once, not read again.
        EXPECT_EQ(body.op.recvd.load(), body.op.source.size());
    }
}

} // namespace
