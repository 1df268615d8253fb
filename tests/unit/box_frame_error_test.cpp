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

size_t count_of_pairs(tarvex_object_t *error)
{
    return static_cast<tarvex_dsi_rest_key_array_t *>(
               tarvex_object_get_instance_data(error, TARVEX_BOX_ERROR_TYPE))->count;
}

class BoxFrameError : public ::testing::Test {
protected:
    static void SetUpTestSuite() { tarvex_module_activate(&tarvex_i_common_module); }
    static void TearDownTestSuite() { tarvex_module_deactivate(&tarvex_i_common_module); }
};

TEST_F(BoxFrameError, PrintsOneQuotedLinePerPair)
{
    object_ptr error = make_box_error({{"Box-Error", "not_found"}, {"Box-Details", "x"}});
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(printable(error.get()), "Box-Error: \"not_found\"\nBox-Details: \"x\"");

    object_ptr escaped = make_box_error({{"K", "a\"b\\c\r\nd"}});
    EXPECT_EQ(printable(escaped.get()), "K: \"a\\\"b\\\\c\\r\\nd\"");

    EXPECT_EQ(printable(make_box_error({}).get()), "");
    object_ptr none(tarvex_box_error_construct(nullptr, nullptr, nullptr));
    EXPECT_EQ(printable(none.get()), "");
}

/* Pairs the writer skips are also left out of the sizing, as long as the
 * first pair prints: none of these may trip the length check. */
TEST_F(BoxFrameError, SkippedPairsKeepTheSizing)
{
    EXPECT_EQ(printable(make_box_error({{"A", "1"}, {"B", nullptr}, {"C", "3"}}).get()),
              "A: \"1\"\nC: \"3\"");
    EXPECT_EQ(printable(make_box_error({{"A", "1"}, {nullptr, "2"}, {"", ""}}).get()),
              "A: \"1\"");
    EXPECT_EQ(printable(make_box_error({{nullptr, nullptr}}).get()), "");
    EXPECT_EQ(printable(make_box_error({{"", ""}, {nullptr, "v"}}).get()), "");
}

TEST_F(BoxFrameError, PresentButEmptyValueStopsTheProcess)
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
    EXPECT_STREQ(tarvex_box_error_get_info(ftp.get(), "Box-Error"), "not_found");
    EXPECT_EQ(tarvex_box_error_get_info(ftp.get(), "Box-Path"), nullptr);

    object_ptr plain(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, "X", nullptr));
    EXPECT_EQ(tarvex_box_error_get_info(plain.get(), "Box-Error"), nullptr);
}

TEST_F(BoxFrameError, AddInfoAppendsOneNewKeyAndKeepsExistingValues)
{
    object_ptr error = make_box_error({{"Box-Error", "old"}});
    pair_list input = {{"Box-Error", "new"}, {"Box-Path", "/p"}};
    tarvex_dsi_rest_key_array_t info = {input.size(), input.data()};
    tarvex_box_error_add_info(error.get(), &info);
    ASSERT_EQ(count_of_pairs(error.get()), 2u);
    EXPECT_STREQ(tarvex_box_error_get_info(error.get(), "Box-Error"), "old");
    EXPECT_STREQ(tarvex_box_error_get_info(error.get(), "Box-Path"), "/p");
    EXPECT_EQ(printable(error.get()), "Box-Error: \"old\"\nBox-Path: \"/p\"");
}

TEST_F(BoxFrameError, AddInfoWithTwoNewKeysRollsBack)
{
    object_ptr error = make_box_error({{"Box-Error", "e"}});
    pair_list input = {{"A", "1"}, {"B", "2"}};
    tarvex_dsi_rest_key_array_t info = {input.size(), input.data()};
    tarvex_box_error_add_info(error.get(), &info);
    EXPECT_EQ(count_of_pairs(error.get()), 1u);
    EXPECT_EQ(tarvex_box_error_get_info(error.get(), "A"), nullptr);
    EXPECT_EQ(printable(error.get()), "Box-Error: \"e\"");

    /* Into an empty error, one pair is welcome. */
    object_ptr empty = make_box_error({});
    pair_list one = {{"A", "1"}};
    tarvex_dsi_rest_key_array_t single = {one.size(), one.data()};
    tarvex_box_error_add_info(empty.get(), &single);
    EXPECT_STREQ(tarvex_box_error_get_info(empty.get(), "A"), "1");

    /* Not a box error: nothing happens. */
    object_ptr ftp(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 500, "X", nullptr));
    tarvex_box_error_add_info(ftp.get(), &single);
    EXPECT_EQ(tarvex_box_error_get_info(ftp.get(), "A"), nullptr);
}

/* ---- translation ---- */

struct answer {
    int status;
    const char *body;        /* JSON, or nullptr */
    const char *retry_after; /* header value, or nullptr */
};

struct expected {
    int code;              /* FTP reply code; 0: no FTP error in the chain */
    const char *klass;     /* class word */
    const char *message;   /* nullptr: no message */
    bool box_cause;        /* the box error is attached */
    bool retry;
    unsigned long seconds;
};

struct translation {
    tarvex_result_t result;
    bool retry;
    unsigned long seconds;
};

translation translate(const answer &a)
{
    tarvex_dsi_rest_key_value_t wanted[1] = {{"Retry-After", a.retry_after}};
    tarvex_dsi_rest_response_arg_t response = {a.status, {1, wanted}, 0, 0};
    json_t *doc = a.body ? json_loads(a.body, 0, nullptr) : nullptr;
    translation t{};
    t.retry = !a.retry_after; /* something the call must overwrite */
    t.seconds = 99;
    t.result = tarvex_box_translate_response(&response, doc, &t.retry, &t.seconds);
    json_decref(doc);
    return t;
}

void check(const answer &a, const expected &e)
{
    SCOPED_TRACE(std::to_string(a.status) + " " + (a.body ? a.body : "(no body)"));
    translation t = translate(a);
    EXPECT_EQ(t.retry, e.retry);
    EXPECT_EQ(t.seconds, e.seconds);
    tarvex_object_t *error = tarvex_error_peek(t.result);
    if (e.code == 0) {
        if (e.box_cause) {
            ASSERT_NE(error, nullptr);
            EXPECT_TRUE(tarvex_object_type_match(tarvex_object_get_type(error),
                                                 TARVEX_BOX_ERROR_TYPE));
        } else {
            EXPECT_EQ(t.result, TARVEX_SUCCESS);
        }
        return;
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), e.code);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), e.klass);
    const char *message = tarvex_gfs_ftp_response_error_get_message(error);
    if (e.message == nullptr)
        EXPECT_TRUE(message == nullptr || message[0] == '\0') << message;
    else
        EXPECT_STREQ(message ? message : "", e.message);
    tarvex_object_t *cause = tarvex_error_get_cause(error);
    EXPECT_EQ(cause != nullptr && tarvex_object_type_match(tarvex_object_get_type(cause),
                                                           TARVEX_BOX_ERROR_TYPE),
              e.box_cause);
}

TEST_F(BoxFrameError, TranslatesBoxErrorBodiesByCode)
{
    const char *notfound =
        R"({"code":"not_found","message":"gone","context_info":{"errors":[{"name":"a.txt"}]}})";
    const struct {
        answer in;
        expected out;
    } cases[] = {
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
         {550, "PERMISSION_DENIED", nullptr, true, false, 0}},
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
}

TEST_F(BoxFrameError, TranslatesBareStatuses)
{
    const struct {
        answer in;
        expected out;
    } cases[] = {
        {{302, nullptr, nullptr}, {451, "TOO_BUSY", nullptr, false, true, 0}},
        {{401, nullptr, nullptr}, {550, "PERMISSION_DENIED", nullptr, false, false, 0}},
        {{403, nullptr, "2"}, {550, "PERMISSION_DENIED", nullptr, false, true, 2}},
        {{404, nullptr, nullptr}, {550, "PATH_NOT_FOUND", "", false, false, 0}},
        {{409, nullptr, nullptr}, {553, "PATH_EXISTS", "GridFTP-Path: (null)", false, false, 0}},
        {{429, nullptr, nullptr}, {451, "TOO_BUSY", nullptr, false, true, 0}},
        {{503, nullptr, nullptr}, {500, "INTERNAL_ERROR", "", false, false, 0}},
        {{503, nullptr, "7"}, {500, "INTERNAL_ERROR", "", false, true, 7}},
        {{418, nullptr, nullptr}, {0, nullptr, nullptr, false, false, 0}},
        {{402, nullptr, nullptr}, {0, nullptr, nullptr, false, false, 0}},
        {{499, nullptr, "1"}, {0, nullptr, nullptr, false, true, 1}},
    };
    for (const auto &c : cases)
        check(c.in, c.out);

    translation bad = translate({400, nullptr, nullptr});
    tarvex_object_t *error = tarvex_error_peek(bad.result);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_error_get_type(error), TARVEX_GFS_ERROR_GENERIC);
    EXPECT_STREQ(tarvex_error_get_message(error), "Bad BOX request");
}

TEST_F(BoxFrameError, BoxErrorOfAnAnswerPrintsItsPresentKeys)
{
    translation t = translate(
        {429, R"({"code":"rate_limit_exceeded","request_id":"r1","help_url":"h"})", nullptr});
    tarvex_object_t *error = tarvex_error_peek(t.result);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(printable(error), "code: \"rate_limit_exceeded\"\nrequest_id: \"r1\"\nhelp_url: \"h\"");
}

} // namespace
