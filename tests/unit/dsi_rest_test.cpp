// Unit tests of the REST client's pure pieces: multipart framing with the
// boundary of the Content-Type, response-head parsing, the shape of a JSON
// text as the limits on JSON answers see it.
#include <gtest/gtest.h>

#include "dsi_rest_internal.h"

using namespace tarvex_dsi_rest_internal;

namespace {

class Activated : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0); }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_dsi_rest_module); }
};
::testing::Environment *const activated = ::testing::AddGlobalTestEnvironment(new Activated);

// Runs the multipart writer to its end in pieces of `step` bytes, inside a
// request whose Content-Type is `content_type`.
std::string drain(tarvex_dsi_rest_multipart_arg_t *multipart, const char *content_type,
                  size_t step, std::optional<uint64_t> *length)
{
    RequestContext ctx("POST", "http://h/u", nullptr);
    ctx.content_type = content_type;
    *length = known_body_length(ctx, tarvex_dsi_rest_write_multipart, multipart);
    std::string out;
    std::vector<char> buffer(step);
    while (out.size() < 1 << 20) {
        size_t n = 0;
        tarvex_result_t result = tarvex_dsi_rest_write_multipart(multipart, buffer.data(), step, &n);
        if (result != TARVEX_SUCCESS) {
            tarvex_error_discard(result);
            return "error";
        }
        if (n == 0)
            break;
        out.append(buffer.data(), n);
    }
    return out;
}

TEST(RestMultipart, FramesPartsWithTheBoundaryAndKnowsTheLength)
{
    std::string a = "{\"name\":\"x\"}", b = "bytes\r\n--not-a-boundary";
    tarvex_dsi_rest_write_block_arg_t block_a{a.data(), a.size()}, block_b{b.data(), b.size()};
    tarvex_dsi_rest_key_value_t ha[] = {{"Content-Disposition", "form-data; name=\"attributes\""}};
    tarvex_dsi_rest_key_value_t hb[] = {{"Content-Disposition", "form-data; name=\"file\""},
                                        {"Content-Type", "application/octet-stream"}};
    tarvex_dsi_rest_write_part_t parts[] = {{{1, ha}, tarvex_dsi_rest_write_block, &block_a},
                                            {{2, hb}, tarvex_dsi_rest_write_block, &block_b}};
    tarvex_dsi_rest_multipart_arg_t multipart{2, parts}, empty{0, nullptr};
    const std::string expected =
        "--BND\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n" + a +
        "\r\n--BND\r\nContent-Disposition: form-data; name=\"file\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n" +
        b + "\r\n--BND--\r\n";
    // Small steps split delimiters and data; the boundary parameter may be
    // quoted, in any case, and followed by others.
    const std::pair<size_t, const char *> cases[] = {
        {1, "multipart/form-data; boundary=BND"},
        {7, "multipart/form-data;charset=x; BOUNDARY=\"BND\""},
        {4096, "multipart/form-data; boundary=BND ; charset=y"},
    };
    std::optional<uint64_t> length;
    for (auto [step, type] : cases) {
        EXPECT_EQ(drain(&multipart, type, step, &length), expected) << type;
        EXPECT_EQ(length, expected.size());
    }
    EXPECT_EQ(drain(&empty, "multipart/form-data; boundary=E", 16, &length), "--E--\r\n");
    for (const char *type : {"multipart/form-data", "multipart/form-data; boundaryx=1"}) {
        EXPECT_EQ(drain(&multipart, type, 16, &length), "error");
        EXPECT_EQ(length, std::nullopt);
    }
}

// Records each delivery of a response head as "code|status|key=value|...".
tarvex_result_t remember(void *arg, int code, const char *status,
                         const tarvex_dsi_rest_key_array_t *headers)
{
    std::string &seen = *static_cast<std::string *>(arg);
    seen += std::to_string(code) + "|" + status;
    for (size_t i = 0; i < headers->count; i++)
        seen += std::string("|") + headers->key_value[i].key + "=" + headers->key_value[i].value;
    seen += "\n";
    return TARVEX_SUCCESS;
}

TEST(RestResponseHead, InterimAnswersAreSkippedAndTheFinalHeadDeliveredOnce)
{
    std::string seen;
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = remember;
    callbacks.response_callback_arg = &seen;
    RequestContext ctx("PUT", "http://h/u", &callbacks);
    for (std::string line : {"HTTP/1.1 100 Continue\r\n", "\r\n", "HTTP/1.1 201 Created\r\n",
                             "Location:  /x \r\n", "X-Long: a\r\n", "\t b\r\n", "\r\n",
                             "X-Trailer: late\r\n", "\r\n"})
        ASSERT_EQ(header_callback(line.data(), 1, line.size(), &ctx), line.size());
    EXPECT_EQ(seen, "201|HTTP/1.1 201 Created|Location=/x|X-Long=a b\n");
}

// The Box plug-in clears the record between attempts: an attempt that gets
// no answer must not read as the last one's status or Retry-After.
TEST(RestResponseHead, AClearedRecordReadsAsNoAnswer)
{
    tarvex_dsi_rest_key_value_t wanted[] = {{"Retry-After", nullptr}};
    tarvex_dsi_rest_response_arg_t record = {0, {1, wanted}, 0, 0};
    tarvex_dsi_rest_key_value_t answered[] = {{"Retry-After", "7"}};
    const tarvex_dsi_rest_key_array_t headers = {1, answered};
    ASSERT_EQ(tarvex_dsi_rest_response(&record, 429, "HTTP/1.1 429", &headers), TARVEX_SUCCESS);
    ASSERT_EQ(record.response_code, 429);
    ASSERT_STREQ(wanted[0].value, "7");
    record.request_bytes_uploaded = record.response_bytes_downloaded = 5;
    tarvex_dsi_rest_response_arg_clear(&record);
    EXPECT_EQ(record.response_code, 0);
    EXPECT_EQ(wanted[0].value, nullptr);
    EXPECT_EQ(record.request_bytes_uploaded + record.response_bytes_downloaded, 0u);
}

// Depth and weight (objects and arrays 4, strings and bare words 1) of a
// text, whole and fed one byte at a time: brackets and quotes inside
// strings, escapes split across pieces, and stray closers count for nothing.
TEST(RestJsonShape, DepthAndWeightFollowTheTextNotItsStrings)
{
    struct Case {
        std::string text;
        unsigned depth;
        uint64_t weight;
    };
    const Case cases[] = {
        {R"({"a":[1,2,{"b":"[{"}]})", 3, 4 + 1 + 4 + 1 + 1 + 4 + 1 + 1},
        {R"("\"[\\" )", 0, 1},
        {R"(["\\\"]{", "x"])", 1, 4 + 1 + 1},
        {"[true, false,null,-1.5e3 ]", 1, 4 + 4},
        {"[[[[]]]]", 4, 16},
        {"]]]}[", 1, 4},
        {"", 0, 0},
    };
    for (const Case &c : cases) {
        JsonShape whole, bytewise;
        whole.feed(c.text);
        for (char ch : c.text)
            bytewise.feed(std::string_view(&ch, 1));
        for (const JsonShape *shape : {&whole, &bytewise}) {
            EXPECT_EQ(shape->max_depth(), c.depth) << c.text;
            EXPECT_EQ(shape->weight(), c.weight) << c.text;
        }
    }
}

} // namespace
