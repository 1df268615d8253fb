/* The C++ fixture of the Box emulator: start over HTTP and HTTPS, control
 * helpers, log parsing, and the stop on destruction. */
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "box_emulator.h"

using tarvex_test::BoxEmulator;

namespace {

size_t collect(char *data, size_t size, size_t count, void *user)
{
    static_cast<std::string *>(user)->append(data, size * count);
    return size * count;
}

// GET with the default token, following redirects -> (status, body).
std::pair<long, std::string> get(const BoxEmulator &emu, const std::string &url,
                                 const char *range = nullptr)
{
    std::pair<long, std::string> answer;
    CURL *curl = curl_easy_init();
    struct curl_slist *headers = curl_slist_append(nullptr, "Authorization: Bearer test-token");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_RANGE, range);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.second);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    if (!emu.ca_file().empty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, emu.ca_file().c_str());
    if (curl_easy_perform(curl) == CURLE_OK)
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.first);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return answer;
}

} // namespace

TEST(BoxEmulatorFixture, HttpControlAndLog)
{
    BoxEmulator emu;
    ASSERT_EQ(emu.base_url(), "http://127.0.0.1:" + std::to_string(emu.port()));
    const std::string items = emu.api_base() + "/2.0/folders/0/items";
    auto ids = emu.seed(R"({"entries":[{"path":"/a b/f.txt","content":"hello"}]})");
    ASSERT_EQ(ids.size(), 2u);   // the parent folder is reported too

    auto listing = get(emu, items + "?usemarker=true&marker=");
    EXPECT_EQ(listing.first, 200);
    EXPECT_NE(listing.second.find("\"id\":\"" + ids["/a b"] + "\""), std::string::npos);
    auto file = get(emu, emu.api_base() + "/2.0/files/" + ids["/a b/f.txt"] + "/content", "1-3");
    EXPECT_EQ(file, std::make_pair(206L, std::string("ell")));

    auto log = emu.log();
    ASSERT_EQ(log.size(), 3u);   // listing, content, redirected download
    EXPECT_EQ(log[0].method + " " + log[0].path, "GET /2.0/folders/0/items");
    EXPECT_EQ(log[0].query_value("usemarker"), "true");
    EXPECT_TRUE(log[0].has_query("marker"));
    EXPECT_EQ(log[0].header("AUTHORIZATION"), "Bearer test-token");
    EXPECT_EQ(log[0].body_sha1, "da39a3ee5e6b4b0d3255bfef95601890afd80709");   // empty body
    EXPECT_EQ(log[1].status, 302);
    EXPECT_EQ(log[2].status, 206);
    EXPECT_EQ(log[2].response_length, 3u);
    // The redirect was answered before its download was asked for.
    EXPECT_LT(log[1].ended, log[2].started);
    EXPECT_LE(log[2].started, log[2].ended);
    auto downloads = emu.concurrency("GET", "^/d/");
    EXPECT_EQ((std::vector<int>{downloads.peak, downloads.open, downloads.count}),
              (std::vector<int>{1, 0, 1}));

    emu.clear_log();
    EXPECT_TRUE(emu.log().empty());
    EXPECT_NE(emu.item("/a b/f.txt").find("\"name\":\"f.txt\""), std::string::npos);
    EXPECT_EQ(emu.item("/missing"), "");
    EXPECT_EQ(emu.content("/a b/f.txt"), "hello");
    EXPECT_THROW(emu.seed(R"({"entries":[{"path":"relative"}]})"), std::runtime_error);

    emu.tokens(R"({"revoke":"test-token"})");
    EXPECT_EQ(get(emu, items).first, 401);
    emu.reset();   // start-up tokens again, empty tree
    EXPECT_NE(get(emu, items).second.find("\"entries\":[]"), std::string::npos);
}

TEST(BoxEmulatorFixture, HttpsWithTestCaAndStop)
{
    pid_t pid;
    {
        BoxEmulator::Options options;
        options.https = true;
        options.tokens = {"tok-1"};
        BoxEmulator emu(options);
        pid = emu.pid();
        ASSERT_EQ(emu.base_url().rfind("https://127.0.0.1:", 0), 0u);
        ASSERT_FALSE(emu.ca_file().empty());
        emu.seed(R"({"entries":[{"path":"/x","size":100000}]})");
        // Verified TLS by address and by name; the default token is not accepted.
        EXPECT_EQ(get(emu, emu.base_url() + "/2.0/folders/0/items").first, 401);
        emu.tokens(R"({"token":"test-token","expires_in":null})");
        EXPECT_EQ(get(emu, emu.base_url() + "/2.0/folders/0/items").first, 200);
        std::string by_name = "https://localhost:" + std::to_string(emu.port());
        EXPECT_EQ(get(emu, by_name + "/2.0/folders/0/items").first, 200);
        EXPECT_EQ(emu.content("/x").size(), 100000u);
    }
    EXPECT_EQ(kill(pid, 0), -1);   // stopped and reaped
}
