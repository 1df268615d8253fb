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
#include <memory>
#include <string>
#include <vector>

#include "box_scratch.h"
#include "config.h"
#include "evaluate_path.h"
#include "origin.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "token.h"

namespace {

/* "code message" of a failure: "0 source: message" of the outermost error
 * unless it is an FTP response error; "" for success.  The error is taken
 * out of the table and freed. */
std::string failure(tarvex_result_t result)
{
    std::unique_ptr<tarvex_object_t, void (*)(tarvex_object_t *)> error(tarvex_error_get(result),
                                                                       tarvex_object_free);
    if (error == nullptr)
        return "";
    int code = tarvex_gfs_ftp_response_error_get_code(error.get());
    if (code == 0)
        return std::string("0 ") + tarvex_error_get_file(error.get()) + ": " +
               tarvex_error_get_message(error.get());
    return std::to_string(code) + " " + tarvex_gfs_ftp_response_error_get_message(error.get());
}

/* The settings a policy leaves that differ from the defaults, e.g.
 * "rate=40 replace=new-version". */
std::string settings(int rate)
{
    std::string out;
    auto add = [&out](bool differs, const std::string &what) {
        if (differs)
            out += (out.empty() ? "" : " ") + what;
    };
    const tarvex_box_cache_policy cache = tarvex_box_cache_policy_get();
    add(rate != 16, "rate=" + std::to_string(rate));
    add(tarvex_i_box_rename_replaces, "rename_replaces");
    add(tarvex_i_box_replace != TARVEX_BOX_REPLACE_DELETE_FIRST, "replace=new-version");
    add(cache.shared, "shared");
    add(cache.ttl_seconds != -1, "ttl=" + std::to_string(cache.ttl_seconds));
    add(tarvex_i_box_upload_parts_in_flight != 1,
        "parts=" + std::to_string(tarvex_i_box_upload_parts_in_flight));
    add(tarvex_i_box_download_streams != 1,
        "streams=" + std::to_string(tarvex_i_box_download_streams));
    add(tarvex_i_box_list_page_size != 300, "page=" + std::to_string(tarvex_i_box_list_page_size));
    return out;
}

/* Every policy key: its values, absent or null the default, every parse
 * starting from the defaults (a row after a setting shows the reset), and
 * a refusal naming the key.  Not JSON is a generic error, the wrong type
 * of a rate an FTP 500; a refused count leaves the counts before it. */
TEST(BoxFrameSession, PolicyKeys)
{
    const std::string bad = "500 GridFTP-Error: Bad \"";
    const std::string in = "\" in collection storage policy: it must be ";
    const std::string rename = bad + "rename_replaces" + in + "true or false.";
    const std::string replace = bad + "replace" + in + "\"delete-first\" or \"new-version\".";
    const std::string mode = bad + "session_cache" + in + "\"private\" or \"shared\".";
    const std::string ttl = bad + "cache_ttl_seconds" + in +
                            "a whole number of seconds from 0 to 31536000.";
    auto count = [&](const char *key, const char *range) {
        return bad + key + in + "a whole number from " + range + ".";
    };
    const struct { const char *policy; const char *settings; std::string failure;
    } cases[] = {
        {"{}", "", ""},
        {R"({"user_api_rate_limit": 0})", "", ""},
        {R"({"user_api_rate_limit": 40, "other": [1]})", "rate=40", ""},
        {R"({"user_api_rate_limit": -3})", "rate=-3", ""},
        {R"({"user_api_rate_limit": 7, "box_api_base": 1})", "rate=7", ""},
        {"{", "", "0 config: Error loading collection storage policy: "},
        {R"({"user_api_rate_limit": "5"})", "",
         "500 GridFTP-Error: Error unpacking collection storage policy: "},
        {R"({"rename_replaces": true})", "rename_replaces", ""},
        {R"({"rename_replaces": null})", "", ""},
        {R"({"rename_replaces": "true"})", "", rename},
        {R"({"replace": "new-version"})", "replace=new-version", ""},
        {R"({"replace": null})", "", ""},
        {R"({"replace": "delete-first"})", "", ""},
        {R"({"replace": "New-Version"})", "", replace},
        {R"({"replace": true})", "", replace},
        {R"({"session_cache": "shared", "cache_ttl_seconds": 60})", "shared ttl=60", ""},
        {R"({"session_cache": "private", "cache_ttl_seconds": 0})", "ttl=0", ""},
        {R"({"session_cache": null, "cache_ttl_seconds": null})", "", ""},
        {R"({"cache_ttl_seconds": 31536000})", "ttl=31536000", ""},
        {R"({"session_cache": "Shared"})", "", mode},
        {R"({"session_cache": true})", "", mode},
        {R"({"cache_ttl_seconds": -1})", "", ttl},
        {R"({"cache_ttl_seconds": 1.5})", "", ttl},
        {R"({"cache_ttl_seconds": 31536001})", "", ttl},
        {R"({"upload_parts_in_flight": 8, "download_streams": 1, "list_page_size": 1000})",
         "parts=8 page=1000", ""},
        {R"({"upload_parts_in_flight": 1, "download_streams": 8, "list_page_size": 100})",
         "streams=8 page=100", ""},
        {R"({"upload_parts_in_flight": null, "download_streams": 4})", "streams=4", ""},
        {R"({"upload_parts_in_flight": 0})", "", count("upload_parts_in_flight", "1 to 8")},
        {R"({"upload_parts_in_flight": 9})", "", count("upload_parts_in_flight", "1 to 8")},
        {R"({"download_streams": "4"})", "", count("download_streams", "1 to 8")},
        {R"({"list_page_size": 99})", "", count("list_page_size", "100 to 1000")},
        {R"({"list_page_size": 1001, "download_streams": 3})", "streams=3",
         count("list_page_size", "100 to 1000")},
        {"{}", "", ""},
    };
    for (const auto &c : cases) {
        tarvex_box_cache_policy_set({});
        int rate = 16;
        std::string got = failure(tarvex_box_config_parse_json(c.policy, &rate));
        EXPECT_EQ(got.substr(0, c.failure.size()), c.failure) << c.policy;
        EXPECT_EQ(got.empty(), c.failure.empty()) << got;
        EXPECT_EQ(settings(rate), c.settings) << c.policy;
    }
    tarvex_box_cache_policy_set({});
}

/* The bearer token goes over https, or plain http to this host only. */
TEST(BoxFrameSession, BasesThatWouldLeakTheTokenAreRefused)
{
    const struct { const char *url; bool allowed; } urls[] = {
        {"https://api.box.com", true},          {"HTTPS://upload.box.com/x", true},
        {"http://127.0.0.1:8080", true},        {"http://127.200.0.1/", true},
        {"http://[::1]:80/2.0", true},          {"http://localhost", true},
        {"http://api.box.com", false},          {"http://10.0.0.1", false},
        {"http://127.0.0.1.evil.example", false}, {"http://user@127.0.0.1", false},
        {"ftp://127.0.0.1", false},             {"https://", false},
        {"api.box.com", false},                 {"", false},
    };
    for (const auto &u : urls)
        EXPECT_EQ(tarvex_box_url_may_carry_token(u.url), u.allowed) << u.url;
}

/* The token goes to the two configured origins only: scheme, host and port
 * alike (a default port written or not), nowhere a redirect might name. */
TEST(BoxFrameSession, TheTokenGoesOnlyToTheConfiguredOrigins)
{
    tarvex_box_set_bases("https://api.box.com", "http://127.0.0.1:8080");
    const struct { const char *url; bool box; } urls[] = {
        {"https://api.box.com/2.0/files/1/content", true}, {"HTTPS://API.BOX.COM:443/x", true},
        {"http://127.0.0.1:8080/api/2.0/files/content", true},
        {"https://dl.boxcloud.com/d/1/b1!sig/download", false},
        {"http://api.box.com/2.0", false},       {"https://api.box.com:8443/", false},
        {"http://127.0.0.1:8081/x", false},      {"http://localhost:8080/x", false},
        {"https://user@api.box.com/", false},    {"ftp://api.box.com/", false},
        {"", false},
    };
    for (const auto &u : urls)
        EXPECT_EQ(tarvex_box_url_on_box_origin(u.url), u.box) << u.url;
    tarvex_box_set_bases("https://api.box.com", "https://upload.box.com");
}

/* Configuration data the operation gives, and the keys asked for. */
std::map<std::string, std::string> config;
std::vector<std::string> asked;

tarvex_result_t give(void *, const char *key, char **text)
{
    asked.push_back(key);
    *text = config.count(key) ? strdup(config[key].c_str()) : nullptr;
    return TARVEX_SUCCESS;
}

tarvex_result_t refresh(tarvex_box_session_t *box)
{
    asked.clear();
    tarvex_gfs_operation_provider_t provider{};
    provider.get_config_data = give;
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&provider, nullptr);
    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    tarvex_gfs_operation_destroy(op);
    return result;
}

/* The expiry is 2099-01-01 00:00:00 UTC, written with an offset. */
std::string credential(const std::string &token,
                       const std::string &expiry = "2099-01-01T05:30:00.000000+05:30")
{
    return R"({"access_token":")" + token + R"(","token_expiry":")" + expiry +
           R"(","sub":"123","max_upload":9})";
}

/* The first token comes from "creds".  With 99 seconds left it is renewed
 * from "renew-creds", with 100 it is not (unless the clock ticked between
 * the test's reading and the code's). */
TEST(BoxFrameSession, CredentialAndItsRenewal)
{
    config = {{"creds", credential("t1")}, {"renew-creds", credential("t2")}};
    tarvex_box_session_t box{};
    ASSERT_EQ(refresh(&box), TARVEX_SUCCESS);
    EXPECT_EQ(asked, std::vector<std::string>{"creds"});
    EXPECT_STREQ(box.access_token, "t1");
    EXPECT_STREQ(box.user_id, "123");
    EXPECT_EQ(box.max_upload, 9u);
    EXPECT_EQ(box.access_token_exp, 4070908800);
    for (int left : {100, 99}) {
        time_t before = time(nullptr);
        box.access_token_exp = before + left;
        ASSERT_EQ(refresh(&box), TARVEX_SUCCESS);
        bool ticked = time(nullptr) != before;
        EXPECT_TRUE(asked.size() == (left == 99 ? 1u : 0u) || (left == 100 && ticked)) << left;
    }
    EXPECT_STREQ(box.access_token, "t2");
    free(box.access_token);
    free(box.user_id);
}

/* A credential that does not parse is refused without a word of it: the
 * reply and the log line say where it broke, never what was there. */
TEST(BoxFrameSession, AMalformedCredentialIsNeverQuoted)
{
    const struct { std::string text; const char *failure; } cases[] = {
        {R"({"access_token":"SECRET-token")", "0 token: Error loading user credential: not "
                                              "JSON (line 1, column 30)\n"},
        {R"({"access_token":"SECRET-token","sub":"1"})",
         "500 GridFTP-Error: Error unpacking user credential: Object item not found: "
         "token_expiry\n"},
        /* An expiry needs its fraction and a numeric offset. */
        {credential("SECRET", "2030-01-01T00:00:00Z"),
         "0 token: Error parsing time string: 2030-01-01T00:00:00Z\n"},
    };
    for (const auto &c : cases) {
        config = {{"creds", c.text}};
        tarvex_box_session_t box{};
        std::string got = failure(refresh(&box));
        EXPECT_EQ(got.find("SECRET"), std::string::npos) << got;
        EXPECT_EQ(got, c.failure) << c.text;
        free(box.access_token);
        free(box.user_id);
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

/* From the password entry, never the environment. */
TEST(BoxFrameSession, ExpandsPathVariables)
{
    struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    std::string home = pw->pw_dir, name = pw->pw_name;
    setenv("HOME", "/not/this", 1);
    EXPECT_EQ(expand("$HOME/.tarvex/box-r"), home + "/.tarvex/box-r");
    EXPECT_EQ(expand("/plain/path"), "/plain/path");
    EXPECT_EQ(expand("$LOGNAME$HOMEX$"), name + home + "X$");

    auto saved = tarvex_i_box_getpwuid_r;
    tarvex_i_box_getpwuid_r = long_entry;
    std::string value = expand("$HOME/$LOGNAME");
    tarvex_i_box_getpwuid_r = saved;
    EXPECT_EQ(value, long_home + "/" + long_name);
    EXPECT_EQ(offered, (std::vector<size_t>{64, 128, 256}));
}

} // namespace
