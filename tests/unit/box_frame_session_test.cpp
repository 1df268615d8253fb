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

bool starts_with(const char *text, const std::string &start)
{
    return text != nullptr && std::string(text).rfind(start, 0) == 0;
}

TEST_F(BoxFrameSession, PolicyRate)
{
    const struct { const char *policy; int before, after; } cases[] = {
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

/* Not JSON is a generic error, a key of the wrong type an FTP 500. */
TEST_F(BoxFrameSession, PolicyFailuresDifferByKind)
{
    int rate = 16;
    tarvex_object_t *not_json = peek(tarvex_box_config_parse_json("{", &rate));
    ASSERT_NE(not_json, nullptr);
    EXPECT_EQ(tarvex_error_get_type(not_json), TARVEX_GFS_ERROR_GENERIC);
    EXPECT_TRUE(starts_with(tarvex_error_get_message(not_json),
                            "Error loading collection storage policy: "));
    for (const char *policy : {R"({"user_api_rate_limit": "5"})", "[]", R"({"box_api_base": 1})"}) {
        tarvex_object_t *wrong = peek(tarvex_box_config_parse_json(policy, &rate));
        ASSERT_NE(wrong, nullptr) << policy;
        EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(wrong), 500);
        EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(wrong), "INTERNAL_ERROR");
        EXPECT_TRUE(starts_with(tarvex_gfs_ftp_response_error_get_message(wrong),
                                "GridFTP-Error: Error unpacking collection storage policy: "));
    }
    EXPECT_EQ(rate, 16);
}

TEST_F(BoxFrameSession, EnvironmentAndPolicyChooseTheBases)
{
    /* The environment is read at first use: look in a fresh process. */
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("TARVEX_BOX_API_BASE", "http://127.0.0.1:1/", 1);
            bool api = strcmp(tarvex_box_api_base(), "http://127.0.0.1:1") == 0;
            bool upload = strcmp(tarvex_box_upload_base(), "https://upload.box.com") == 0;
            exit(api && upload ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    int rate = 16;
    ASSERT_EQ(tarvex_box_config_parse_json(
                  R"({"box_api_base":"http://127.0.0.1:2","box_upload_base":"http://127.0.0.1:3"})",
                  &rate), TARVEX_SUCCESS);
    EXPECT_STREQ(tarvex_box_api_base(), "http://127.0.0.1:2");
    EXPECT_STREQ(tarvex_box_upload_base(), "http://127.0.0.1:3");
}

TEST_F(BoxFrameSession, DatesWithOffsets)
{
    const struct { const char *text; time_t utc; } good[] = {
        {"2030-01-01T00:00:00.000000-05:00", 1893474000}, /* 2030-01-01 05:00:00 */
        {"2030-01-01T00:00:00.5+05:30", 1893436200},      /* 2029-12-31 18:30:00 */
        {"2030-01-01T00:00:00.0-00:30", 1893454200},      /* applied as +00:30 */
    };
    for (const auto &c : good) {
        time_t when = 0;
        EXPECT_EQ(tarvex_i_box_parse_date(c.text, &when), TARVEX_SUCCESS) << c.text;
        EXPECT_EQ(when, c.utc) << c.text;
    }
    for (const char *bad : {"2030-01-01T00:00:00-05:00", "2030-01-01T00:00:00.000Z", ""}) {
        time_t when = 0;
        tarvex_object_t *error = peek(tarvex_i_box_parse_date(bad, &when));
        ASSERT_NE(error, nullptr) << bad;
        EXPECT_EQ(std::string(tarvex_error_get_message(error)),
                  std::string("Error parsing time string: ") + bad + "\n");
    }
}

/* A session record and an operation whose configuration data comes from a
 * map, noting which keys were asked for. */
struct session_fixture {
    std::map<std::string, std::string> data;
    std::vector<std::string> asked;
    tarvex_gfs_operation_provider_t provider{};
    tarvex_gfs_operation_t op;
    tarvex_box_session_t box{};

    static tarvex_result_t give(void *ctx, const char *key, char **text)
    {
        auto *self = static_cast<session_fixture *>(ctx);
        self->asked.push_back(key);
        auto it = self->data.find(key);
        *text = it == self->data.end() ? nullptr : strdup(it->second.c_str());
        return TARVEX_SUCCESS;
    }
    explicit session_fixture(const char *token = nullptr, time_t expiry = 0)
    {
        provider.get_config_data = give;
        op = tarvex_gfs_operation_create(&provider, this);
        if (token != nullptr) {
            box.access_token = strdup(token);
            box.user_id = strdup("123");
            box.access_token_exp = expiry;
        }
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
    session_fixture none;
    EXPECT_EQ(tarvex_box_get_kelm_token(&none.box, none.op), TARVEX_SUCCESS);
    EXPECT_EQ(none.box.access_token, nullptr);

    session_fixture s;
    s.data["creds"] = credential("t1", "2099-01-01T00:00:00.000000+00:00");
    ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
    ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
    EXPECT_STREQ(s.box.access_token, "t1");
    EXPECT_STREQ(s.box.user_id, "123");
    EXPECT_EQ(s.box.max_upload, 53687091200u);
    EXPECT_EQ(s.box.access_token_exp, 4070908800);
    EXPECT_EQ(s.asked, std::vector<std::string>{"creds"}); /* fresh: asked once */
}

/* 99 seconds left renews, 100 do not.  A round in which the clock ticked
 * between the test's reading and the code's is repeated. */
TEST_F(BoxFrameSession, RenewsWithNinetyNineSecondsLeft)
{
    for (int left : {99, 100}) {
        for (int round = 0; round < 5; round++) {
            time_t before = time(nullptr);
            session_fixture s("t1", before + left);
            s.data["renew-creds"] = credential("t2", "2099-01-01T00:00:00.0+00:00");
            ASSERT_EQ(tarvex_box_token_refresh(&s.box, s.op), TARVEX_SUCCESS);
            if (time(nullptr) != before)
                continue;
            EXPECT_EQ(s.asked.size(), left == 99 ? 1u : 0u);
            EXPECT_STREQ(s.box.access_token, left == 99 ? "t2" : "t1");
            break;
        }
    }
}

TEST_F(BoxFrameSession, RenewalThatStaysExpiredFails)
{
    session_fixture s("t1", time(nullptr) - 1);
    s.data["renew-creds"] = credential("t2", "2000-01-01T00:00:00.0+00:00");
    tarvex_object_t *error = peek(tarvex_box_token_refresh(&s.box, s.op));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), 500);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(error), "INTERNAL_ERROR");
    char *chain = tarvex_error_print_chain(error);
    EXPECT_NE(std::string(chain).find(
                  "Box-Details: \"Token renewal failed. Newly requested token is expired.\""),
              std::string::npos) << chain;
    free(chain);
    EXPECT_EQ(s.asked, std::vector<std::string>{"renew-creds"});
}

TEST_F(BoxFrameSession, BadCredentialsAreRefusedAndNothingStored)
{
    const char *expiry = R"("token_expiry":"2099-01-01T00:00:00.0+00:00")";
    const struct { std::string text; int code; const char *start; } cases[] = {
        {"not json", 0, "Error loading user credential: "},
        {std::string(R"({"access_token":"t",)") + expiry + R"(,"sub":"1"})", 500,
         "GridFTP-Error: Error unpacking user credential: "},
        {std::string(R"({"access_token":"t",)") + expiry + R"(,"sub":1,"max_upload":1})", 500,
         "GridFTP-Error: Error unpacking user credential: "},
        {R"({"access_token":"t","token_expiry":"2099-01-01","sub":"1","max_upload":1})", 0,
         "Error parsing time string: 2099-01-01\n"},
    };
    for (const auto &c : cases) {
        session_fixture s;
        s.data["creds"] = c.text;
        tarvex_object_t *error = peek(tarvex_box_get_kelm_token(&s.box, s.op));
        ASSERT_NE(error, nullptr) << c.text;
        EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(error), c.code) << c.text;
        EXPECT_TRUE(starts_with(c.code ? tarvex_gfs_ftp_response_error_get_message(error)
                                       : tarvex_error_get_message(error), c.start)) << c.text;
        EXPECT_EQ(s.box.access_token, nullptr);
        EXPECT_EQ(s.box.user_id, nullptr);
    }
}

std::string expand(const char *text)
{
    char *result = nullptr;
    EXPECT_EQ(tarvex_box_evaluate_path(text, &result), TARVEX_SUCCESS);
    std::string value = result ? result : "<none>";
    free(result);
    return value;
}

TEST_F(BoxFrameSession, ExpandsFromThePasswordEntryNotTheEnvironment)
{
    struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    std::string home = pw->pw_dir, name = pw->pw_name;
    setenv("HOME", "/not/this", 1);
    EXPECT_EQ(expand("$HOME/.tarvex/box-r"), home + "/.tarvex/box-r");
    EXPECT_EQ(expand("$LOGNAME-$LOGNAME"), name + "-" + name);
    EXPECT_EQ(expand("$HOMEX"), home + "X");
    EXPECT_EQ(expand("/plain/path"), "/plain/path");
    EXPECT_EQ(expand("$LOGNAME$HOME$"), name + home + "$");
}

/* An entry that does not fit 64 bytes: the buffer doubles until it does. */
std::vector<size_t> offered;
const std::string long_name(40, 'n'), long_home = "/home/" + std::string(150, 'h');

int long_entry(uid_t, struct passwd *entry, char *buffer, size_t size, struct passwd **found)
{
    offered.push_back(size);
    *found = nullptr;
    if (size < long_name.size() + long_home.size() + 2)
        return errno = ERANGE;
    memset(entry, 0, sizeof *entry);
    entry->pw_name = strcpy(buffer, long_name.c_str());
    entry->pw_dir = strcpy(buffer + long_name.size() + 1, long_home.c_str());
    *found = entry;
    return 0;
}
int no_entry(uid_t, struct passwd *, char *, size_t, struct passwd **found)
{
    return *found = nullptr, 0;
}
int broken(uid_t, struct passwd *, char *, size_t, struct passwd **found)
{
    return *found = nullptr, errno = EIO;
}

TEST_F(BoxFrameSession, BufferGrowsForLongEntries)
{
    auto saved = tarvex_i_box_getpwuid_r;
    tarvex_i_box_getpwuid_r = long_entry;
    std::string value = expand("$HOME/$LOGNAME");
    tarvex_i_box_getpwuid_r = no_entry;
    std::string none = expand("[$HOME|$LOGNAME]");
    tarvex_i_box_getpwuid_r = broken;
    char *result = nullptr;
    tarvex_result_t failed = tarvex_box_evaluate_path("$HOME", &result);
    tarvex_i_box_getpwuid_r = saved;

    EXPECT_EQ(value, long_home + "/" + long_name);
    EXPECT_EQ(offered, (std::vector<size_t>{64, 128, 256}));
    EXPECT_EQ(none, "[|]");
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(tarvex_error_errno_get_errno(peek(failed)), EIO);
}

} // namespace
