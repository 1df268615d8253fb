/*
 * What a session reads before its first request: the policy, the user's
 * credential and its renewal, and the expansion of local file names.
 */
#include <gtest/gtest.h>

#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "tarvex_box_common.h"

extern "C" int (*tarvex_i_box_getpwuid_r)(uid_t, struct passwd *, char *, size_t,
                                         struct passwd **);

namespace {

class BoxFrameSession : public ::testing::Test {
protected:
    static void SetUpTestSuite() { tarvex_module_activate(&tarvex_i_common_module); }
    static void TearDownTestSuite() { tarvex_module_deactivate(&tarvex_i_common_module); }
};

tarvex_object_t *peek(tarvex_result_t result) { return tarvex_error_peek(result); }

/* ---- policy ---- */

TEST_F(BoxFrameSession, PolicyRate)
{
    const struct {
        const char *policy;
        int before;
        int after;
    } cases[] = {
        {"{}", 16, 16},
        {R"({"user_api_rate_limit": 0})", 12, 12},
        {R"({"user_api_rate_limit": 40, "other": [1]})", 16, 40},
        {R"({"user_api_rate_limit": -3})", 16, -3},
    };
    for (const auto &c : cases) {
        int rate = c.before;
        EXPECT_EQ(tarvex_box_config_parse_json(c.policy, &rate), TARVEX_SUCCESS) << c.policy;
        EXPECT_EQ(rate, c.after) << c.policy;
    }
}

TEST_F(BoxFrameSession, PolicyFailuresDifferByKind)
{
    int rate = 16;
    tarvex_object_t *not_json = peek(tarvex_box_config_parse_json("{", &rate));
    ASSERT_NE(not_json, nullptr);
    EXPECT_EQ(tarvex_error_get_type(not_json), TARVEX_GFS_ERROR_GENERIC);
    EXPECT_EQ(std::string(tarvex_error_get_message(not_json))
                  .rfind("Error loading collection storage policy: ", 0), 0u);

    for (const char *policy : {R"({"user_api_rate_limit": "5"})", "[]",
                               R"({"box_api_base": 1})"}) {
        tarvex_object_t *wrong = peek(tarvex_box_config_parse_json(policy, &rate));
        ASSERT_NE(wrong, nullptr) << policy;
        EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(wrong), 500);
        EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(wrong), "INTERNAL_ERROR");
        EXPECT_EQ(std::string(tarvex_gfs_ftp_response_error_get_message(wrong))
                      .rfind("GridFTP-Error: Error unpacking collection storage policy: ", 0),
                  0u);
    }
    EXPECT_EQ(rate, 16);
}

TEST_F(BoxFrameSession, PolicyAndEnvironmentChooseTheBases)
{
    setenv("TARVEX_BOX_API_BASE", "http://127.0.0.1:1/", 1);
    tarvex_box_set_bases(nullptr, nullptr);
    EXPECT_STREQ(tarvex_box_api_base(), "http://127.0.0.1:1");
    EXPECT_STREQ(tarvex_box_upload_base(), "https://upload.box.com");
    unsetenv("TARVEX_BOX_API_BASE");

    int rate = 16;
    ASSERT_EQ(tarvex_box_config_parse_json(
                  R"({"box_api_base":"http://127.0.0.1:2","box_upload_base":"http://127.0.0.1:3"})",
                  &rate),
              TARVEX_SUCCESS);
    EXPECT_STREQ(tarvex_box_api_base(), "http://127.0.0.1:2");
    EXPECT_STREQ(tarvex_box_upload_base(), "http://127.0.0.1:3");
}

/* ---- credential ---- */

TEST_F(BoxFrameSession, DatesWithOffsets)
{
    const struct {
        const char *text;
        time_t utc;
    } good[] = {
        {"2030-01-01T00:00:00.000000-05:00", 1893474000},  /* 2030-01-01 05:00:00 */
        {"2030-01-01T00:00:00.5+05:30", 1893436200},       /* 2029-12-31 18:30:00 */
        {"2030-01-01T00:00:00.0-00:30", 1893454200},       /* applied as +00:30 */
        {"2030-01-01T00:00:00.123456+00:00", 1893456000},
    };
    for (const auto &c : good) {
        time_t when = 0;
        EXPECT_EQ(tarvex_i_box_parse_date(c.text, &when), TARVEX_SUCCESS) << c.text;
        EXPECT_EQ(when, c.utc) << c.text;
    }
    for (const char *bad : {"2030-01-01T00:00:00-05:00", "2030-01-01T00:00:00.000Z",
                            "", "tomorrow"}) {
        time_t when = 0;
        tarvex_object_t *error = peek(tarvex_i_box_parse_date(bad, &when));
        ASSERT_NE(error, nullptr) << bad;
        EXPECT_EQ(std::string(tarvex_error_get_message(error)),
                  std::string("Error parsing time string: ") + bad + "\n");
    }
}

/* An operation whose configuration data comes from a map. */
struct config_source {
    std::map<std::string, std::string> data;
    std::vector<std::string> asked;
};

tarvex_result_t give_config(void *ctx, const char *key, char **text)
{
    auto *source = static_cast<config_source *>(ctx);
    source->asked.push_back(key);
    auto it = source->data.find(key);
    *text = it == source->data.end() ? nullptr : strdup(it->second.c_str());
    return TARVEX_SUCCESS;
}

struct session_fixture {
    config_source source;
    tarvex_gfs_operation_provider_t provider{};
    tarvex_gfs_operation_t op = nullptr;
    tarvex_box_session_t box{};

    session_fixture()
    {
        provider.get_config_data = give_config;
        op = tarvex_gfs_operation_create(&provider, &source);
    }
    ~session_fixture()
    {
        tarvex_gfs_operation_destroy(op);
        free(box.access_token);
        free(box.user_id);
    }
};

std::string credential(const std::string &token, const std::string &expiry)
{
    return R"({"access_token":")" + token + R"(","token_expiry":")" + expiry +
           R"(","sub":"123","max_upload":53687091200})";
}

TEST_F(BoxFrameSession, FirstCredentialComesFromCreds)
{
    session_fixture s;
    s.source.data["creds"] = credential("t1", "2099-01-01T00:00:00.000000+00:00");
    ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
    EXPECT_STREQ(s.box.access_token, "t1");
    EXPECT_STREQ(s.box.user_id, "123");
    EXPECT_EQ(s.box.max_upload, 53687091200u);
    EXPECT_EQ(s.box.access_token_exp, 4070908800);
    EXPECT_EQ(s.source.asked, std::vector<std::string>{"creds"});

    /* Fresh: no further question. */
    ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
    EXPECT_EQ(s.source.asked.size(), 1u);
}

TEST_F(BoxFrameSession, NoCredentialIsNoTokenButNoError)
{
    session_fixture s;
    EXPECT_EQ(tarvex_box_get_kelm_token(&s.box, s.op), TARVEX_SUCCESS);
    EXPECT_EQ(s.box.access_token, nullptr);
}

/* 99 seconds left renews, 100 do not.  A tick of the clock between the
 * test's reading and the code's would blur the line: such a round is
 * repeated. */
TEST_F(BoxFrameSession, RenewsWithNinetyNineSecondsLeft)
{
    for (int left : {99, 100}) {
        for (int round = 0; round < 5; round++) {
            session_fixture s;
            s.source.data["renew-creds"] = credential("t2", "2099-01-01T00:00:00.0+00:00");
            s.box.access_token = strdup("t1");
            s.box.user_id = strdup("123");
            time_t before = time(nullptr);
            s.box.access_token_exp = before + left;
            ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
            if (time(nullptr) != before)
                continue;
            if (left == 99) {
                EXPECT_EQ(s.source.asked, std::vector<std::string>{"renew-creds"});
                EXPECT_STREQ(s.box.access_token, "t2");
            } else {
                EXPECT_TRUE(s.source.asked.empty());
                EXPECT_STREQ(s.box.access_token, "t1");
            }
            break;
        }
    }
}

TEST_F(BoxFrameSession, RenewalThatStaysExpiredFails)
{
    session_fixture s;
    s.source.data["renew-creds"] = credential("t2", "2000-01-01T00:00:00.0+00:00");
    s.box.access_token = strdup("t1");
    s.box.user_id = strdup("123");
    s.box.access_token_exp = time(nullptr) - 1;
    tarvex_object_t *error = peek(tarvex_box_token_refresh(&s.box, s.op));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), 500);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), "INTERNAL_ERROR");
    EXPECT_STREQ(tarvex_box_error_get_info(error, "Box-Details"),
                 "Token renewal failed. Newly requested token is expired.");
    char *chain = tarvex_error_print_chain(error);
    EXPECT_NE(std::string(chain).find(
                  "Box-Details: \"Token renewal failed. Newly requested token is expired.\""),
              std::string::npos);
    free(chain);
    EXPECT_STREQ(s.box.access_token, "t2");
}

TEST_F(BoxFrameSession, BadCredentialsAreRefusedAndNothingStored)
{
    const struct {
        const char *text;
        int code; /* 0: generic error */
        const char *start;
    } cases[] = {
        {"not json", 0, "Error loading user credential: "},
        {R"({"access_token":"t","token_expiry":"2099-01-01T00:00:00.0+00:00","sub":"1"})", 500,
         "GridFTP-Error: Error unpacking user credential: "},
        {R"({"access_token":"t","token_expiry":"2099-01-01T00:00:00.0+00:00","sub":1,"max_upload":1})",
         500, "GridFTP-Error: Error unpacking user credential: "},
        {R"({"access_token":"t","token_expiry":"2099-01-01","sub":"1","max_upload":1})", 0,
         "Error parsing time string: 2099-01-01\n"},
    };
    for (const auto &c : cases) {
        session_fixture s;
        s.source.data["creds"] = c.text;
        tarvex_object_t *error = peek(tarvex_box_get_kelm_token(&s.box, s.op));
        ASSERT_NE(error, nullptr) << c.text;
        if (c.code == 0) {
            EXPECT_EQ(tarvex_error_get_type(error), TARVEX_GFS_ERROR_GENERIC);
            EXPECT_EQ(std::string(tarvex_error_get_message(error)).rfind(c.start, 0), 0u);
        } else {
            EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), c.code);
            EXPECT_EQ(std::string(tarvex_gfs_ftp_response_error_get_message(error))
                          .rfind(c.start, 0), 0u);
        }
        EXPECT_EQ(s.box.access_token, nullptr);
        EXPECT_EQ(s.box.user_id, nullptr);
    }
}

/* ---- path variables ---- */

std::string expand(const char *text)
{
    char *result = nullptr;
    EXPECT_EQ(tarvex_box_evaluate_path(text, &result), TARVEX_SUCCESS);
    std::string value = result ? result : "<none>";
    free(result);
    return value;
}

TEST_F(BoxFrameSession, ExpandsFromThePasswordEntry)
{
    struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    std::string home = pw->pw_dir, name = pw->pw_name;
    setenv("HOME", "/not/this", 1);
    EXPECT_EQ(expand("$HOME/.tarvex/box-r"), home + "/.tarvex/box-r");
    EXPECT_EQ(expand("$LOGNAME-$LOGNAME"), name + "-" + name);
    EXPECT_EQ(expand("$HOMEX"), home + "X");
    EXPECT_EQ(expand("/plain/path"), "/plain/path");
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand("$LOGNAME$HOME$"), name + home + "$");
}

/* A password entry that does not fit 64 bytes: the lookup is repeated with
 * a doubled buffer until it fits. */
std::vector<size_t> offered_sizes;
const std::string long_home = "/home/" + std::string(150, 'h');

int long_entry(uid_t, struct passwd *entry, char *buffer, size_t size, struct passwd **found)
{
    offered_sizes.push_back(size);
    std::string name = "someone-with-a-rather-long-login-name";
    if (size < name.size() + long_home.size() + 2) {
        *found = nullptr;
        errno = ERANGE;
        return ERANGE;
    }
    memset(entry, 0, sizeof *entry);
    strcpy(buffer, name.c_str());
    entry->pw_name = buffer;
    strcpy(buffer + name.size() + 1, long_home.c_str());
    entry->pw_dir = buffer + name.size() + 1;
    *found = entry;
    return 0;
}

int no_entry(uid_t, struct passwd *, char *, size_t, struct passwd **found)
{
    *found = nullptr;
    return 0;
}

int broken_lookup(uid_t, struct passwd *, char *, size_t, struct passwd **found)
{
    *found = nullptr;
    errno = EIO;
    return EIO;
}

TEST_F(BoxFrameSession, BufferGrowsForLongEntries)
{
    auto saved = tarvex_i_box_getpwuid_r;
    offered_sizes.clear();
    tarvex_i_box_getpwuid_r = long_entry;
    std::string value = expand("$HOME/$LOGNAME");
    std::string none = (tarvex_i_box_getpwuid_r = no_entry, expand("[$HOME|$LOGNAME]"));
    tarvex_i_box_getpwuid_r = broken_lookup;
    char *result = strdup("x");
    free(result);
    tarvex_result_t failed = tarvex_box_evaluate_path("$HOME", &result);
    tarvex_i_box_getpwuid_r = saved;

    EXPECT_EQ(value, long_home + "/someone-with-a-rather-long-login-name");
    EXPECT_EQ(offered_sizes, (std::vector<size_t>{64, 128, 256}));
    EXPECT_EQ(none, "[|]");
    EXPECT_EQ(result, nullptr);
    tarvex_object_t *error = peek(failed);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_error_errno_get_errno(error), EIO);
}

} // namespace
