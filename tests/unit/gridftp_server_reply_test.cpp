// The FTP reply formatter (every failed result becomes a well-formed reply)
// and loading plug-ins by name.
#include <gtest/gtest.h>

#include <cerrno>
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

// Variadic only to have a va_list to hand over.
tarvex_object_t *pairs_error(int unused, ...)
{
    va_list ap;
    va_start(ap, unused);
    // No format means no message; gcc counts the va_list as an argument too many.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    tarvex_object_t *e = tarvex_error_initialize_error(tarvex_object_construct(&pairs_type),
                                                       nullptr, nullptr, 0, nullptr, nullptr,
                                                       0, nullptr, ap);
#pragma GCC diagnostic pop
    va_end(ap);
    return e;
}

tarvex_result_t ftp(int code, const char *cls, const char *message,
                    tarvex_object_t *cause = nullptr)
{
    if (message == nullptr)
        return tarvex_error_put(
            tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, cls, nullptr));
    return tarvex_error_put(
        tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, cls, "%s", message));
}

tarvex_object_t *generic(const char *text, tarvex_object_t *cause = nullptr)
{
    return tarvex_error_construct_error(nullptr, cause, TARVEX_GFS_ERROR_GENERIC, __FILE__,
                                        __func__, __LINE__, "%s", text);
}

tarvex_result_t gone()
{
    tarvex_result_t r = tarvex_error_put(generic("taken"));
    tarvex_error_discard(r);
    return r;
}

TEST(GfsReply, RendersEveryKindOfResult)
{
    struct reply_case {
        const char *name;
        std::function<tarvex_result_t()> make;
        int default_code;
        std::string expected;
    };
    const std::vector<reply_case> cases = {
        {"class word only", [] { return ftp(500, "NOT_IMPLEMETED", nullptr); }, 0,
         "500 NOT_IMPLEMETED\r\n"},
        {"class and message", [] { return ftp(550, "PATH_NOT_FOUND", "GridFTP-Path: /a/b"); }, 0,
         "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: /a/b\r\n"},
        {"multi-line message and a cause chain",
         [] { return ftp(451, "FAILED", "first\nsecond", generic("outer", generic("inner"))); }, 0,
         "451-FAILED\r\n451-first\r\n451-second\r\n451-outer\r\n451 inner\r\n"},
        {"cause printed over several lines",
         [] { return ftp(550, "PATH_NOT_FOUND", "GridFTP-Path: /x", pairs_error(0)); }, 0,
         "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: /x\r\n550-Box-Error: \"not_found\"\r\n"
         "550 Box-Details: \"no such item\"\r\n"},
        {"nothing to say at all", [] { return ftp(550, nullptr, nullptr); }, 0,
         "550 Operation failed.\r\n"},
        {"code out of range takes the default", [] { return ftp(42, "ODD", nullptr); }, 0,
         "451 ODD\r\n"},
        {"generic error", [] { return tarvex_error_put(generic("Failed cache update!")); }, 0,
         "451 Failed cache update!\r\n"},
        {"generic error with a default code", [] { return tarvex_error_put(generic("x")); }, 530,
         "530 x\r\n"},
        {"invalid default code falls back to 451", [] { return tarvex_error_put(generic("y")); },
         1000, "451 y\r\n"},
        {"wrapped FTP error: the outer error decides the code",
         [] {
             return tarvex_error_put(generic(
                 "wrapper", tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550,
                                                                   "GONE", "m")));
         },
         0, "451-wrapper\r\n451 m\r\n"},
        {"control characters and blank lines dropped",
         [] {
             return ftp(550, "K\x01",
                        "a\tb\x1b[0mc\r\n\r\n   \n\x7f"
                        "d\xff\xc3\xa9\r");
         },
         0, "550-K\r\n550-ab[0mc\r\n550 d\xc3\xa9\r\n"},
        {"plain failure with a default code", [] { return TARVEX_FAILURE; }, 550,
         "550 Operation failed.\r\n"},
        {"handle of an error already taken", gone, 0, "451 Operation failed.\r\n"},
        {"system error: the call and its errno",
         [] { return tarvex_i_gfs_error_system(nullptr, ENOMEM, "System error in %s", "malloc"); },
         0, std::string("451 System error in malloc: ") + strerror(ENOMEM) + "\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tarvex_result_t r = c.make();
        tarvex_object_t *before = tarvex_error_peek(r);
        char *text = tarvex_gfs_error_to_ftp_reply(r, c.default_code);
        EXPECT_EQ(text, c.expected);
        free(text);
        EXPECT_EQ(tarvex_error_peek(r), before);   // the error stays where it was
        tarvex_error_discard(r);
    }
    char *text = tarvex_gfs_error_object_to_ftp_reply(nullptr, 0);
    EXPECT_STREQ(text, "451 Operation failed.\r\n");
    free(text);
}

TEST(Gfs, LoadsPluginsByName)
{
    tarvex_extension_set_search_path(TARVEX_POSIX_LIB_DIR);
    const tarvex_gfs_storage_iface_t *iface = tarvex_gfs_dsi_load("posix");
    ASSERT_NE(iface, nullptr) << tarvex_extension_last_error();
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "posix"), iface);
    tarvex_gfs_dsi_unload("posix");
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "posix"), nullptr);

    for (const char *name : {"no_such_plugin", "../posix", "", "a b", "x/y"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(tarvex_gfs_dsi_load(name), nullptr);
    }
    EXPECT_EQ(tarvex_gfs_dsi_load(nullptr), nullptr);
    tarvex_extension_set_search_path(nullptr);
}

} // namespace
