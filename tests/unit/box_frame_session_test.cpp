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

/* The message of the FTP response error, or else of the outermost error. */
std::string message(tarvex_result_t result)
{
    tarvex_object_t *error = tarvex_error_peek(result);
    const char *text = tarvex_gfs_ftp_response_error_get_code(error)
                           ? tarvex_gfs_ftp_response_error_get_message(error)
                           : tarvex_error_get_message(error);
    return text ? text : "";
}

/* Not JSON is a generic error, a key of the wrong type an FTP 500. */
TEST_F(BoxFrameSession, PolicyRate)
{
    const struct { const char *policy; int after, code; const char *start; } cases[] = {
        {"{}", 16, 0, ""},
        {R"({"user_api_rate_limit": 0})", 16, 0, ""},
        {R"({"user_api_rate_limit": 40, "other": [1]})", 40, 0, ""},
        {R"({"user_api_rate_limit": -3})", -3, 0, ""},
        {"{", 16, 0, "Error loading collection storage policy: "},
        {R"({"user_api_rate_limit": "5"})", 16, 500,
         "GridFTP-Error: Error unpacking collection storage policy: "},
        {"[]", 16, 500, "GridFTP-Error: Error unpacking collection storage policy: "},
    };
    for (const auto &c : cases) {
        int rate = 16;
        tarvex_result_t result = tarvex_box_config_parse_json(c.policy, &rate);
        EXPECT_EQ(rate, c.after) << c.policy;
        EXPECT_EQ(result == TARVEX_SUCCESS, c.start[0] == '\0') << c.policy;
        EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(tarvex_error_peek(result)), c.code);
        EXPECT_EQ(message(result).rfind(c.start, 0), 0u) << message(result);
    }
}

TEST_F(BoxFrameSession, DatesWithOffsets)
{
    const struct { const char *text; time_t utc; } cases[] = {
        {"2030-01-01T00:00:00.000000-05:00", 1893474000}, /* 2030-01-01 05:00:00 */
        {"2030-01-01T00:00:00.5+05:30", 1893436200},      /* 2029-12-31 18:30:00 */
        {"2030-01-01T00:00:00.0-00:30", 1893454200},      /* applied as +00:30 */
        {"2030-01-01T00:00:00-05:00", 0},                 /* 0: refused */
        {"2030-01-01T00:00:00.000Z", 0},
    };
    for (const auto &c : cases) {
        time_t when = 0;
        tarvex_result_t result = tarvex_i_box_parse_date(c.text, &when);
        EXPECT_EQ(when, c.utc) << c.text;
        EXPECT_EQ(message(result), c.utc ? "" : std::string("Error parsing time string: ") +
                                                    c.text + "\n");
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
    explicit session_fixture(time_t expiry = 0)
    {
        provider.get_config_data = give;
        op = tarvex_gfs_operation_create(&provider, this);
        if (expiry != 0) {
            box.access_token = strdup("t1");
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

/* 99 seconds left renews, 100 do not.  A round in which the clock ticked between the test's reading and
 * the code's is repeated. */
TEST_F(BoxFrameSession, RenewsWithNinetyNineSecondsLeft)
{
    for (int left : {99, 100}) {
        for (int round = 0; round < 5; round++) {
            time_t before = time(nullptr);
            session_fixture s(before + left);
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
    EXPECT_EQ(expand("/plain/path"), "/plain/path");
    EXPECT_EQ(expand("$LOGNAME$HOMEX$"), name + home + "X$");
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

TEST_F(BoxFrameSession, BufferGrowsForLongEntries)
{
    auto saved = tarvex_i_box_getpwuid_r;
    tarvex_i_box_getpwuid_r = long_entry;
    std::string value = expand("$HOME/$LOGNAME");
    tarvex_i_box_getpwuid_r = saved;
    EXPECT_EQ(value, long_home + "/" + long_name);
    EXPECT_EQ(offered, (std::vector<size_t>{64, 128, 256}));
}

} // namespace
