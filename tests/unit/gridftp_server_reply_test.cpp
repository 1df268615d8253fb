// The FTP reply formatter: every failed result becomes a well-formed reply.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tarvex_gridftp_server.h"

namespace {

struct gfs_active : ::testing::Environment {
    void SetUp() override { ASSERT_EQ(tarvex_module_activate(&tarvex_i_gfs_module), 0); }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_gfs_module); }
};
const auto *const env = ::testing::AddGlobalTestEnvironment(new gfs_active);

// An error type like a plug-in's key/value error: its printable form spans
// several lines.
char *pairs_printable(tarvex_object_t *)
{
    return strdup("Box-Error: \"not_found\"\nBox-Details: \"no such item\"");
}
const tarvex_error_class_t pairs_class = {pairs_printable};
const tarvex_object_type_t pairs_type = {TARVEX_ERROR_TYPE_BASE, nullptr, nullptr,
                                         &pairs_class};

tarvex_object_t *initialize(tarvex_object_t *e, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *r = tarvex_error_initialize_error(e, nullptr, nullptr, 0, nullptr,
                                                       nullptr, 0, format, ap);
    va_end(ap);
    return r;
}

tarvex_object_t *pairs_error()
{
    return initialize(tarvex_object_construct(&pairs_type), nullptr);
}

tarvex_object_t *generic(const char *text, tarvex_object_t *cause = nullptr)
{
    return tarvex_error_construct_error(nullptr, cause, TARVEX_GFS_ERROR_GENERIC, __FILE__,
                                        __func__, __LINE__, "%s", text);
}

std::string reply_of(tarvex_object_t *error, int default_code)
{
    tarvex_result_t r = tarvex_error_put(error);
    char *text = tarvex_gfs_error_to_ftp_reply(r, default_code);
    std::string out = text;
    free(text);
    // The formatter leaves the error where it was.
    EXPECT_NE(tarvex_error_peek(r), nullptr);
    return out;
}

struct reply_case {
    const char *name;
    std::function<tarvex_object_t *()> make;
    int default_code;
    std::string expected;
};

TEST(GfsReply, RendersEveryKindOfError)
{
    const std::vector<reply_case> cases = {
        {"class word only",
         [] { return tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 500,
                                                             "NOT_IMPLEMETED", nullptr); },
         0, "500 NOT_IMPLEMETED\r\n"},
        {"class and message",
         [] { return tarvex_gfs_ftp_response_error_construct(
                  nullptr, nullptr, 550, "PATH_NOT_FOUND", "GridFTP-Path: %s", "/a/b"); },
         0, "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: /a/b\r\n"},
        {"multi-line message and a cause chain",
         [] { return tarvex_gfs_ftp_response_error_construct(
                  nullptr, generic("outer cause", generic("inner cause")), 451,
                  "FAILED", "first\nsecond"); },
         0, "451-FAILED\r\n451-first\r\n451-second\r\n451-outer cause\r\n451 inner cause\r\n"},
        {"key/value cause printed over several lines",
         [] { return tarvex_gfs_ftp_response_error_construct(
                  nullptr, pairs_error(), 550, "PATH_NOT_FOUND", "GridFTP-Path: /x"); },
         0,
         "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: /x\r\n550-Box-Error: \"not_found\"\r\n"
         "550 Box-Details: \"no such item\"\r\n"},
        {"empty class word is left out",
         [] { return tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 553, "",
                                                             "only text"); },
         0, "553 only text\r\n"},
        {"nothing to say at all",
         [] { return tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, nullptr,
                                                             nullptr); },
         0, "550 Operation failed.\r\n"},
        {"code out of range takes the default",
         [] { return tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 42, "ODD",
                                                             nullptr); },
         0, "451 ODD\r\n"},
        {"generic error", [] { return generic("Failed cache update!"); }, 0,
         "451 Failed cache update!\r\n"},
        {"generic error with a default code", [] { return generic("x"); }, 530, "530 x\r\n"},
        {"generic error wrapping an FTP error keeps the fixed code",
         [] { return generic("wrapper", tarvex_gfs_ftp_response_error_construct(
                                            nullptr, nullptr, 550, "GONE", "m")); },
         0, "451-wrapper\r\n451 m\r\n"},
        {"control characters dropped, blank lines dropped",
         [] { return tarvex_gfs_ftp_response_error_construct(
                  nullptr, nullptr, 550, "K\x01", "a\tb\x1b[0mc\r\n\r\n   \n\x7f" "d\xff\xc3\xa9\r"); },
         0, "550-K\r\n550-ab[0mc\r\n550 d\xc3\xa9\r\n"},
        {"invalid default code falls back to 451", [] { return generic("y"); }, 1000,
         "451 y\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(reply_of(c.make(), c.default_code), c.expected);
    }
}

TEST(GfsReply, ResultsWithoutAnError)
{
    auto reply = [](tarvex_result_t r, int code) {
        char *text = tarvex_gfs_error_to_ftp_reply(r, code);
        std::string out = text;
        free(text);
        return out;
    };
    EXPECT_EQ(reply(TARVEX_FAILURE, 0), "451 Operation failed.\r\n");
    EXPECT_EQ(reply(TARVEX_FAILURE, 550), "550 Operation failed.\r\n");

    tarvex_result_t gone = tarvex_error_put(generic("taken"));
    tarvex_object_free(tarvex_error_get(gone));
    EXPECT_EQ(reply(gone, 0), "451 Operation failed.\r\n");

    char *text = tarvex_gfs_error_object_to_ftp_reply(nullptr, 0);
    EXPECT_STREQ(text, "451 Operation failed.\r\n");
    free(text);
}

TEST(GfsReply, HugeMessageStaysWellFormed)
{
    std::string message;
    for (int i = 0; i < 20000; i++)
        message += "line " + std::to_string(i) + std::string(40, 'x') + "\r\n";
    std::string reply = reply_of(
        tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 451, "BIG", "%s",
                                                message.c_str()),
        0);

    // Every line starts with the code; only the last one with "451 ".
    size_t lines = 0;
    size_t pos = 0;
    while (pos < reply.size()) {
        size_t end = reply.find("\r\n", pos);
        ASSERT_NE(end, std::string::npos);
        std::string line = reply.substr(pos, end - pos);
        ASSERT_EQ(line.find_first_of("\r\n"), std::string::npos);
        bool last = end + 2 == reply.size();
        ASSERT_EQ(line.substr(0, 4), last ? "451 " : "451-");
        lines++;
        pos = end + 2;
    }
    EXPECT_EQ(lines, 20001u);
    EXPECT_NE(reply.find("451 line 19999"), std::string::npos);
}

} // namespace
