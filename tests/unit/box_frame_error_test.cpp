/*
 * The box error (its pairs, printable form, lookup through a chain and the
 * merge rules) and the translation of Box's error answers.
 */
#include <gtest/gtest.h>

#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "tarvex_box_common.h"

namespace {

using pair_list = std::vector<tarvex_dsi_rest_key_value_t>;

struct object_deleter {
    void operator()(tarvex_object_t *object) const { tarvex_object_free(object); }
};
using object_ptr = std::unique_ptr<tarvex_object_t, object_deleter>;

object_ptr make_box_error(pair_list pairs)
{
    tarvex_dsi_rest_key_array_t info = {pairs.size(), pairs.data()};
    return object_ptr(tarvex_box_error_construct(nullptr, nullptr, &info));
}

std::string printable(tarvex_object_t *error)
{
    char *text = tarvex_error_print_one(error);
    std::string result = text ? text : "<none>";
    free(text);
    return result;
}

void add_info(tarvex_object_t *error, pair_list pairs)
{
    tarvex_dsi_rest_key_array_t info = {pairs.size(), pairs.data()};
    tarvex_box_error_add_info(error, &info);
}

class BoxFrameError : public ::testing::Test {
protected:
    static void SetUpTestSuite() { tarvex_module_activate(&tarvex_i_common_module); }
    static void TearDownTestSuite() { tarvex_module_deactivate(&tarvex_i_common_module); }
};

/* Pairs without a key or a value are skipped, and as long as the first pair
 * prints they leave the sizing alone: none of these trips its check. */
TEST_F(BoxFrameError, PrintsOneQuotedLinePerPair)
{
    const struct { pair_list pairs; const char *text; } cases[] = {
        {{{"Box-Error", "not_found"}, {"Box-Details", "x"}},
         "Box-Error: \"not_found\"\nBox-Details: \"x\""},
        {{{"K", "a\"b\\c\r\nd"}}, "K: \"a\\\"b\\\\c\\r\\nd\""},
        {{}, ""},
        {{{"A", "1"}, {"B", nullptr}, {"C", "3"}}, "A: \"1\"\nC: \"3\""},
        {{{"A", "1"}, {nullptr, "2"}, {"", ""}}, "A: \"1\""},
        {{{"", ""}, {nullptr, "v"}}, ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(printable(make_box_error(c.pairs).get()), c.text);
    object_ptr none(tarvex_box_error_construct(nullptr, nullptr, nullptr));
    EXPECT_EQ(printable(none.get()), "");
}

TEST_F(BoxFrameError, PresentButEmptyValueAfterTheFirstStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    object_ptr error = make_box_error({{"A", "1"}, {"B", ""}});
    EXPECT_DEATH(printable(error.get()), "strlen\\(msg\\) == len");
}

TEST_F(BoxFrameError, GetInfoFollowsTheCauseChain)
{
    object_ptr ftp(tarvex_gfs_ftp_response_error_construct(
        nullptr, make_box_error({{"Box-Error", "not_found"}, {"Box-Details", "x"}}).release(),
        550, "PATH_NOT_FOUND", "%s", "m"));
    EXPECT_STREQ(tarvex_box_error_get_info(ftp.get(), "Box-Details"), "x");
    EXPECT_EQ(tarvex_box_error_get_info(ftp.get(), "Box-Path"), nullptr);
    object_ptr plain(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, "X", nullptr));
    EXPECT_EQ(tarvex_box_error_get_info(plain.get(), "Box-Error"), nullptr);
}

/* One new key is appended while an existing key keeps its value; two new
 * keys in one call are rolled back. */
TEST_F(BoxFrameError, AddInfoMergeRules)
{
    object_ptr error = make_box_error({{"Box-Error", "old"}});
    add_info(error.get(), {{"Box-Error", "new"}, {"Box-Path", "/p"}});
    EXPECT_EQ(printable(error.get()), "Box-Error: \"old\"\nBox-Path: \"/p\"");

    add_info(error.get(), {{"A", "1"}, {"B", "2"}});
    EXPECT_EQ(static_cast<tarvex_dsi_rest_key_array_t *>(
                  tarvex_object_get_instance_data(error.get(), TARVEX_BOX_ERROR_TYPE))->count, 2u);
    EXPECT_EQ(tarvex_box_error_get_info(error.get(), "A"), nullptr);
    EXPECT_EQ(printable(error.get()), "Box-Error: \"old\"\nBox-Path: \"/p\"");
}

/* ---- translation ---- */

struct answer {
    int status;
    const char *body;        /* JSON, or nullptr */
    const char *retry_after; /* header value, or nullptr */
};

struct expected {
    int code;          /* FTP reply code; 0: no FTP error in the chain */
    const char *klass; /* class word */
    const char *message; /* "": none or empty */
    bool box_cause;    /* the box error is attached (or, without code, is the result) */
    bool retry;
    unsigned long seconds;
};

tarvex_result_t translate(const answer &a, bool *retry, unsigned long *seconds)
{
    tarvex_dsi_rest_key_value_t wanted[1] = {{"Retry-After", a.retry_after}};
    tarvex_dsi_rest_response_arg_t response = {a.status, {1, wanted}, 0, 0};
    json_t *doc = a.body ? json_loads(a.body, 0, nullptr) : nullptr;
    *retry = !a.retry_after; /* something the call must overwrite */
    *seconds = 99;
    tarvex_result_t result = tarvex_box_translate_response(&response, doc, retry, seconds);
    json_decref(doc);
    return result;
}

bool is_box_error(tarvex_object_t *object)
{
    return object != nullptr &&
           tarvex_object_type_match(tarvex_object_get_type(object), TARVEX_BOX_ERROR_TYPE);
}

void check(const answer &a, const expected &e)
{
    SCOPED_TRACE(std::to_string(a.status) + " " + (a.body ? a.body : "(no body)"));
    bool retry;
    unsigned long seconds;
    tarvex_object_t *error = tarvex_error_peek(translate(a, &retry, &seconds));
    EXPECT_EQ(retry, e.retry);
    EXPECT_EQ(seconds, e.seconds);
    if (e.code == 0) {
        EXPECT_EQ(is_box_error(error), e.box_cause);
        EXPECT_EQ(error == nullptr, !e.box_cause);
        return;
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), e.code);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), e.klass);
    const char *message = tarvex_gfs_ftp_response_error_get_message(error);
    EXPECT_STREQ(message ? message : "", e.message);
    EXPECT_EQ(is_box_error(tarvex_error_get_cause(error)), e.box_cause);
}

TEST_F(BoxFrameError, TranslatesBoxErrorBodiesByCode)
{
    const char *notfound =
        R"({"code":"not_found","message":"gone","context_info":{"errors":[{"name":"a.txt"}]}})";
    const struct { answer in; expected out; } cases[] = {
        {{404, notfound, nullptr}, {550, "PATH_NOT_FOUND", "GridFTP-Path: \"a.txt\"", true, false, 0}},
        {{404, R"({"code":"not_found"})", nullptr}, {550, "PATH_NOT_FOUND", "", true, false, 0}},
        {{409, R"({"code":"item_name_in_use","context_info":{"conflicts":{"name":"x"}}})", nullptr},
         {553, "PATH_EXISTS", "GridFTP-Path: x", true, false, 0}},
        {{404, R"({"code":"trashed"})", nullptr},
         {550, "PATH_NOT_FOUND", "GridFTP-Path: \"<Trashed Item>\"", true, false, 0}},
        {{400, R"({"code":"item_name_invalid"})", nullptr},
         {553, "INVALID_PATH_NAME", "GridFTP-Path: <Invalid Name>", true, false, 0}},
        {{400, R"({"code":"item_name_too_long"})", nullptr},
         {553, "INVALID_PATH_NAME", "GridFTP-Path: <Invalid Name>", true, false, 0}},
        {{403, R"({"code":"access_denied_insufficient_permissions"})", nullptr},
         {550, "PERMISSION_DENIED", "", true, false, 0}},
        {{400, R"({"code":"bad_digest"})", nullptr},
         {550, "INCORRECT_CHECKSUM",
          "GridFTP-Computed-Checksum: computed\nGridFTP-Expected-Checksum: expected", true, false, 0}},
        /* No code: the status is not looked at, the box error is dropped. */
        {{404, R"({"message":"m"})", nullptr}, {500, "INTERNAL_ERROR", "", false, false, 0}},
        {{503, R"({"code":""})", "4"}, {500, "INTERNAL_ERROR", "", false, true, 4}},
        /* An unlisted code: the box error itself, retry hints from the header. */
        {{429, R"({"code":"rate_limit_exceeded"})", "5"}, {0, nullptr, nullptr, true, true, 5}},
    };
    for (const auto &c : cases)
        check(c.in, c.out);

    /* Only the keys the body has are printed. */
    bool retry;
    unsigned long seconds;
    tarvex_result_t result = translate(
        {429, R"({"code":"rate_limit_exceeded","help_url":"h"})", nullptr}, &retry, &seconds);
    EXPECT_EQ(printable(tarvex_error_peek(result)), "code: \"rate_limit_exceeded\"\nhelp_url: \"h\"");
}

TEST_F(BoxFrameError, TranslatesBareStatuses)
{
    const struct { answer in; expected out; } cases[] = {
        {{302, nullptr, nullptr}, {451, "TOO_BUSY", "", false, true, 0}},
        {{401, nullptr, nullptr}, {550, "PERMISSION_DENIED", "", false, false, 0}},
        {{403, nullptr, "2"}, {550, "PERMISSION_DENIED", "", false, true, 2}},
        {{404, nullptr, nullptr}, {550, "PATH_NOT_FOUND", "", false, false, 0}},
        {{409, nullptr, nullptr}, {553, "PATH_EXISTS", "GridFTP-Path: (null)", false, false, 0}},
        {{429, nullptr, nullptr}, {451, "TOO_BUSY", "", false, true, 0}},
        {{503, nullptr, nullptr}, {500, "INTERNAL_ERROR", "", false, false, 0}},
        {{503, nullptr, "7"}, {500, "INTERNAL_ERROR", "", false, true, 7}},
        {{418, nullptr, nullptr}, {0, nullptr, nullptr, false, false, 0}},
        {{402, nullptr, nullptr}, {0, nullptr, nullptr, false, false, 0}},
        {{499, nullptr, "1"}, {0, nullptr, nullptr, false, true, 1}},
    };
    for (const auto &c : cases)
        check(c.in, c.out);

    bool retry;
    unsigned long seconds;
    tarvex_object_t *error = tarvex_error_peek(translate({400, nullptr, nullptr}, &retry, &seconds));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_error_get_type(error), TARVEX_GFS_ERROR_GENERIC);
    EXPECT_STREQ(tarvex_error_get_message(error), "Bad BOX request");
}

} // namespace
