/*
 * The command operation against the emulator: what each command sends to
 * Box (checked in the emulator's request log), what it answers, what it
 * leaves in the path cache, and that every call is answered exactly once.
 */
#include <algorithm>
#include <thread>

#include "box_session_support.h"
#include "box_wait.h"
#include "config.h"
#include "path_cache.h"
#include "path_resolve.h"

namespace box_session_test {
namespace {

class command_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/d/a.txt","content":"alpha"},
                        {"path":"/d/sub","type":"folder"},
                        {"path":"/e","type":"folder"},
                        {"path":"/f.txt","content":"0123456789abcdefghij"}])");
        ASSERT_NE(start(), nullptr);
        take_requests();
    }

    std::string cksm(const std::string &alg, const std::string &path, tarvex_off_t offset = 0,
                     tarvex_off_t length = -1)
    {
        return command(TARVEX_GFS_CMD_CKSM, path, "", alg.c_str(), offset, length);
    }
    std::map<std::string, std::string> ids_;
};

TEST_F(command_test, UnservedCommandsAreRefusedWithoutARequest)
{
    /* All go to one refusal: a command known to the server, RNFR (the
     * rename takes its source from RNTO), and one the plug-in never heard of. */
    for (auto type : {TARVEX_GFS_CMD_SITE_CHMOD, TARVEX_GFS_CMD_RNFR, TARVEX_GFS_MIN_CUSTOM_CMD}) {
        EXPECT_EQ(command(type, "/d/a.txt"), "500 NOT_IMPLEMETED\r\n") << type;
        EXPECT_EQ(text_, std::nullopt);
    }
    EXPECT_TRUE(take_requests().empty());
}

TEST_F(command_test, AFailedTokenRenewalAnswersBeforeAnyHandler)
{
    free(session_->access_token);
    session_->access_token = strdup("old");
    session_->access_token_exp = time(nullptr) + 10;
    driver_.set_config("renew-creds", std::nullopt);
    driver_.set_config("creds", std::nullopt);
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/new").rfind("500-INTERNAL_ERROR\r\n", 0), 0u);
    EXPECT_EQ(command(TARVEX_GFS_CMD_SITE_CHMOD, "/d").rfind("500-INTERNAL_ERROR\r\n", 0), 0u);
    EXPECT_TRUE(take_requests().empty());
}

TEST_F(command_test, MakeFolder)
{
    /* Existing folder: success, nothing asked; a file in the way, or a
     * missing parent, is refused naming the path that is not a folder. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/sub"), "");
    EXPECT_EQ(text_, "/d/sub");
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/a.txt"),
              "553-NOT_A_DIRECTORY\r\n553 GridFTP-Path: /d/a.txt\r\n");
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/x/y"),
              "553-NOT_A_DIRECTORY\r\n553 GridFTP-Path: /x\r\n");
    EXPECT_EQ(text_, "/x/y");
    EXPECT_EQ(requests_made(), strings{"GET /2.0/folders/" + ids_["/d"] + "/items?limit=300&usemarker=true"});

    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/new"), "");
    EXPECT_EQ(requests_made(), strings{"POST /2.0/folders"});
    ASSERT_NE(cached("/d/new"), nullptr);
    EXPECT_EQ(cached("/d/new")->type, TARVEX_BOX_FOLDER);
    EXPECT_NE(emulator().item("/d/new"), "");

    /* A name Box refuses, and one that is not UTF-8, change nothing. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/" + std::string(1000, 'n')).substr(0, 24),
              "553-INVALID_PATH_NAME\r\n5");
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/bad\xff"),
              "553-INVALID_PATH_NAME\r\n553 GridFTP-Path: <Invalid Name>\r\n");
    EXPECT_EQ(take_requests().size(), 1u);
}

TEST_F(command_test, Delete)
{
    struct {
        tarvex_gfs_command_type_t type;
        std::string path, reply, request;
    } cases[] = {
        {TARVEX_GFS_CMD_DELE, "/d/sub", "451 Path is a folder.\r\n", ""},
        {TARVEX_GFS_CMD_RMD, "/d/a.txt", "451 Path is a file.\r\n", ""},
        {TARVEX_GFS_CMD_DELE, "/d/missing", "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: \"/d/missing\"\r\n", ""},
        {TARVEX_GFS_CMD_DELE, "/d/a.txt", "", "DELETE /2.0/files/" + ids_["/d/a.txt"]},
        {TARVEX_GFS_CMD_SITE_RDEL, "/d", "",
         "DELETE /2.0/folders/" + ids_["/d"] + "?recursive=true"},
        {TARVEX_GFS_CMD_SITE_RDEL, "/", "550-PERMISSION_DENIED\r\n550 GridFTP-Path: /\r\n", ""},
    };
    for (const auto &c : cases) {
        /* Resolved first, so that only the command's own requests count. */
        tarvex_error_discard(tarvex_box_path_resolve(session_, c.path.c_str(), nullptr, nullptr));
        take_requests();
        EXPECT_EQ(command(c.type, c.path), c.reply) << c.path;
        EXPECT_EQ(text_, std::nullopt);
        EXPECT_EQ(requests_made(), c.request.empty() ? strings{} : strings{c.request}) << c.path;
        if (!c.request.empty()) {
            EXPECT_EQ(cached(c.path), nullptr) << c.path;
        }
    }
    EXPECT_EQ(emulator().item("/d"), "");
    ASSERT_NE(cached("/"), nullptr);
}

/* A refusal Box explains is not tried again (attempt budgets of dropped
 * connections: box_calls_test.cpp). */
TEST_F(command_test, ARefusalBoxExplainsIsNeverRetried)
{
    ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/sub", nullptr, nullptr), TARVEX_SUCCESS);
    take_requests();
    fault("POST", "^/2.0/folders$", 1, R"("status":409,"body":{"code":"item_name_in_use",)"
                                       R"("context_info":{"conflicts":{"name":"m"}}})");
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/m").rfind("553-PATH_EXISTS\r\n553-GridFTP-Path: m\r\n", 0),
              0u);

    /* A delete refusal that says the item stays keeps it known (a folder
     * not empty leaves its tree reachable); an answer that may mean it is
     * gone drops the entry. */
    fault("DELETE", "^/2.0/files/", 1, R"("status":429,"headers":{"Retry-After":"1"})");
    EXPECT_EQ(command(TARVEX_GFS_CMD_DELE, "/d/a.txt"), "451 TOO_BUSY\r\n");
    fault("DELETE", "^/2.0/folders/", 1, R"("status":503,"body":null)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RMD, "/d/sub"), "500 INTERNAL_ERROR\r\n");
    EXPECT_EQ(requests_made().size(), 3u);
    EXPECT_NE(cached("/d/a.txt"), nullptr);
    EXPECT_EQ(cached("/d/sub"), nullptr);
    EXPECT_NE(emulator().item("/d/a.txt"), "");

    /* Box's reason for a plain 400 follows the reply's first line. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_RMD, "/d"),
              "451-Bad BOX request\r\n451 Box-Details: \"folder_not_empty\"\r\n");
    EXPECT_NE(cached("/d"), nullptr);
    take_requests();

    /* A dropped connection is tried twice. */
    fault("DELETE", "^/2.0/files/", 1, R"("drop":true)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_DELE, "/d/a.txt"), "");
    EXPECT_EQ(requests_made(), (strings{"DELETE /2.0/files/" + ids_["/d/a.txt"],
                                        "DELETE /2.0/files/" + ids_["/d/a.txt"]}));
    EXPECT_EQ(emulator().item("/d/a.txt"), "");
}

TEST_F(command_test, Rename)
{
    /* Refusals send no update and change nothing.  The target is resolved
     * first: only a move that would be sent is refused for going into the
     * folder's own subtree. */
    ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/sub", nullptr, nullptr), TARVEX_SUCCESS);
    const struct { const char *to, *from, *reply; } refusals[] = {
        {"/d/sub", "/d/a.txt", "553-PATH_EXISTS\r\n553 GridFTP-Path: /d/sub\r\n"},
        {"/d/a.txt", "/d/a.txt", "553-PATH_EXISTS\r\n553 GridFTP-Path: /d/a.txt\r\n"},
        {"/d/sub/in", "/d", "553-INVALID_PATH_NAME\r\n553 GridFTP-Path: /d/sub/in\r\n"},
        {"/d/sub", "/d", "553-PATH_EXISTS\r\n553 GridFTP-Path: /d/sub\r\n"},
        {"/d/none/in", "/d", "553-NOT_A_DIRECTORY\r\n553 GridFTP-Path: /d/none\r\n"},
        {"/x", "/", "550-PERMISSION_DENIED\r\n550 GridFTP-Path: /\r\n"},
        {"/x", "/nope", "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: \"/nope\"\r\n"},
    };
    for (const auto &r : refusals)
        EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, r.to, r.from), r.reply) << r.from << " to " << r.to;
    EXPECT_TRUE(only(take_requests(), "PUT", "/").empty());

    /* Box refuses the update: the cache keeps the source, which still
     * resolves without a request, and knows nothing of the target. */
    fault("PUT", "^/2.0/files/", 1, R"("status":403,"body":null)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/c.txt", "/d/a.txt"), "550 PERMISSION_DENIED\r\n");
    EXPECT_EQ(requests_made(), strings{"PUT /2.0/files/" + ids_["/d/a.txt"]});
    EXPECT_EQ(cached("/d/c.txt"), nullptr);
    EXPECT_EQ(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr), TARVEX_SUCCESS);
    EXPECT_TRUE(take_requests().empty());

    /* Rename in place, then move a folder: one PUT each, name and parent
     * always sent; the target is cached, the source is not. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/b.txt", "/d/a.txt"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/e/sub2", "/d/sub"), "");
    EXPECT_EQ(take_requests().size(), 3u); /* their shapes: box_calls_test.cpp */
    EXPECT_EQ(cached("/d/a.txt"), nullptr);
    EXPECT_EQ(cached("/d/sub"), nullptr);
    ASSERT_NE(cached("/d/b.txt"), nullptr);
    EXPECT_EQ(cached("/e/sub2")->type, TARVEX_BOX_FOLDER);
    EXPECT_NE(emulator().item("/d/b.txt"), "");
    EXPECT_NE(emulator().item("/e/sub2"), "");
    EXPECT_EQ(tarvex_box_path_resolve(session_, "/e/sub2", nullptr, nullptr), TARVEX_SUCCESS);
    EXPECT_TRUE(take_requests().empty());
}

/* With the policy's "rename_replaces" a file takes the name of another:
 * the old one is moved aside, the new one renamed, then the old one
 * deleted; a failure on the way leaves both files on Box. */
TEST_F(command_test, RenameOntoAFileReplacesItWhenThePolicySaysSo)
{
    struct replaces_on {
        replaces_on() { tarvex_i_box_rename_replaces = true; }
        ~replaces_on() { tarvex_i_box_rename_replaces = false; }
    } on;
    ids_ = seed(R"([{"path":"/d/old.txt","content":"old"},{"path":"/d/new.txt","content":"new"}])");
    const std::string put_old = "PUT /2.0/files/" + ids_["/d/old.txt"];
    const std::string put_new = "PUT /2.0/files/" + ids_["/d/new.txt"];
    auto names_in_d = [] {
        strings out;
        for (const auto &e : emulator().tree())
            if (e.path.rfind("/d/", 0) == 0)
                out.push_back(e.path);
        return out;
    };
    ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/sub", nullptr, nullptr), TARVEX_SUCCESS);
    take_requests();

    /* Folders are never replaced, nor replace; a file onto itself is done. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/sub", "/d/a.txt"),
              "553-PATH_EXISTS\r\n553 GridFTP-Path: /d/sub\r\n");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/a.txt", "/d/sub"),
              "553-PATH_EXISTS\r\n553 GridFTP-Path: /d/a.txt\r\n");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/a.txt", "/d/a.txt"), "");
    EXPECT_TRUE(take_requests().empty());

    /* The new file's move fails: the old file gets its name back. */
    fault("PUT", "^/2.0/files/" + ids_["/d/new.txt"] + "$", 1, R"("status":403,"body":null)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/old.txt", "/d/new.txt"), "550 PERMISSION_DENIED\r\n");
    EXPECT_EQ(requests_made(), (strings{put_old, put_new, put_old}));
    EXPECT_EQ(emulator().content("/d/old.txt"), "old");
    EXPECT_EQ(emulator().content("/d/new.txt"), "new");
    EXPECT_EQ(names_in_d().size(), 4u);

    /* ... and so does the way back: the error names where the old file is. */
    fault("PUT", "^/2.0/files/" + ids_["/d/old.txt"] + "$", 1, R"("delay_ms":0)");
    fault("PUT", "^/2.0/files/" + ids_["/d/new.txt"] + "$", 1, R"("status":403,"body":null)");
    fault("PUT", "^/2.0/files/" + ids_["/d/old.txt"] + "$", 1, R"("status":403,"body":null)");
    std::string reply = command(TARVEX_GFS_CMD_RNTO, "/d/old.txt", "/d/new.txt");
    std::string aside;
    for (const auto &path : names_in_d())
        if (path.rfind("/d/old.txt.tarvex-replaced-", 0) == 0)
            aside = path;
    ASSERT_FALSE(aside.empty());
    EXPECT_EQ(reply, "550-PERMISSION_DENIED\r\n550 Box-Details: \"The file to be replaced is kept as " +
                         aside + ".\"\r\n");
    EXPECT_EQ(emulator().content(aside), "old");
    EXPECT_EQ(emulator().content("/d/new.txt"), "new");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/old.txt", aside), "");
    take_requests();

    /* The replacement: three requests, the old file is gone, the new one
     * resolves under its new name from the cache. */
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/old.txt", "/d/new.txt"), "");
    EXPECT_EQ(requests_made(),
              (strings{put_old, put_new, "DELETE /2.0/files/" + ids_["/d/old.txt"]}));
    EXPECT_EQ(emulator().content("/d/old.txt"), "new");
    EXPECT_EQ(names_in_d(), (strings{"/d/a.txt", "/d/sub", "/d/old.txt"}));
    EXPECT_EQ(cached("/d/new.txt"), nullptr);
    ASSERT_NE(cached("/d/old.txt"), nullptr);
    EXPECT_EQ(std::string(cached("/d/old.txt")->id), ids_["/d/new.txt"]);
}

TEST_F(command_test, ChecksumsAnsweredFromWhatIsKnown)
{
    const std::string data = "0123456789abcdefghij";
    EXPECT_EQ(cksm("SHA1", "/f.txt"), "");
    EXPECT_EQ(text_, sha1_of(data));
    EXPECT_EQ(cksm("md5", "/f.txt", 5, 0), "");
    EXPECT_EQ(text_, "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(cksm("ADLER32", "/f.txt"), "");
    EXPECT_EQ(text_, std::nullopt);
    EXPECT_TRUE(take_requests().empty());

    /* The MD5 is first looked for in Box's properties, then computed from
     * one download without a Range, and kept. */
    EXPECT_EQ(cksm("MD5", "/f.txt"), "");
    EXPECT_EQ(text_, md5_of(data));
    EXPECT_EQ(take_requests().size(), 4u); /* their shapes: box_calls_test.cpp */
    EXPECT_NE(emulator().item("/f.txt").find(md5_of(data)), std::string::npos);
    EXPECT_EQ(cksm("MD5", "/f.txt"), "");
    EXPECT_EQ(text_, md5_of(data));
    EXPECT_TRUE(take_requests().empty());

    /* A property another session stored answers without a download. */
    seed(R"([{"path":"/e/g.txt","content":"x","md5_property":"0123456789abcdef0123456789abcdef"}])");
    EXPECT_EQ(cksm("MD5", "/e/g.txt"), "");
    EXPECT_EQ(text_, "0123456789abcdef0123456789abcdef");
}

TEST_F(command_test, ChecksumOfARangeRecordsNothing)
{
    EXPECT_EQ(cksm("MD5", "/f.txt", 10, -1), "");
    EXPECT_EQ(text_, md5_of("abcdefghij"));
    EXPECT_EQ(take_requests().size(), 2u);
    EXPECT_EQ(cached("/f.txt")->md5, nullptr);

    /* A retried content request leaves the download a single attempt. */
    fault("GET", "/content$", 1, R"("status":429,"body":null)");
    fault("GET", "^/d/", 1, R"("status":429,"body":null)");
    EXPECT_NE(cksm("SHA1", "/f.txt", 10, -1), "");
    EXPECT_EQ(take_requests().size(), 3u);

    /* A signed link in the clear across a network is not followed (the
     * token never goes with one), and only the bytes asked for make a sum. */
    fault("GET", "/content$", 1,
          R"("status":302,"headers":{"Location":"http://198.51.100.7/d/x"},"body":null)");
    EXPECT_NE(cksm("SHA1", "/f.txt", 10, -1).find("Refusing to send a signed download link to "
                                                  "http://198.51.100.7:80: only https"),
              std::string::npos);
    EXPECT_EQ(take_requests().size(), 1u);
    for (const char *answer : {R"("status":200,"body":"abcdefghijklmnop")",
                               R"("status":416,"body":null)"}) {
        fault("GET", "^/d/", 1, answer);
        EXPECT_NE(cksm("MD5", "/f.txt", 10, -1).find("Box answered with HTTP status"),
                  std::string::npos)
            << answer;
        for (const auto &e : take_requests())
            EXPECT_EQ(e.header("Authorization"), e.path.rfind("/d/", 0) == 0 ? "" : "Bearer test-token");
    }
}

TEST_F(command_test, AnExplicitLengthRepeatsItsRangeUntilARequestFails)
{
    std::string reply;
    std::thread command([&] { reply = cksm("MD5", "/f.txt", 0, 10); });
    /* Two downloads of the range, then Box stops answering. */
    auto range_downloads = [] {
        size_t count = 0;
        for (const auto &e : emulator().log())
            count += e.path.rfind("/d/", 0) == 0 && e.header("Range") == "bytes=0-9";
        return count;
    };
    EXPECT_TRUE(tarvex_test::eventually([&] { return range_downloads() >= 2; }));
    fault("GET", "/content$", -1, R"("status":404,"body":null)");
    command.join();
    EXPECT_EQ(reply.rfind("550 PATH_NOT_FOUND", 0), 0u);
}

/* Progress replies go out at the interval the server asks for and carry
 * the bytes hashed so far: none yet while Box is slow to name where the
 * bytes are, then more and more as they come in.  The throttled download
 * of 59999 bytes lasts 2.95 s at least, so replies with bytes are due. */
TEST_F(command_test, ProgressRepliesCarryTheBytesHashedSoFar)
{
    seed(R"([{"path":"/e/slow.bin","size":60000}])");
    driver_.set_update_interval(1);
    for (bool slow_location : {false, true}) {
        SCOPED_TRACE(slow_location ? "content request slower than the interval" : "throttled");
        fault("GET", "^/d/", 1, R"("throttle_bps":20000)");
        if (slow_location)
            fault("GET", "/content$", 1, R"("delay_ms":1100)");
        EXPECT_EQ(cksm("SHA1", "/e/slow.bin", 1, -1), "");
        std::vector<long> bytes;
        std::string seen;
        for (const auto &p : driver_.events(tarvex_test::event_kind::command_intermediate)) {
            bytes.push_back(std::stol(p.text.value_or("-1")));
            seen += " " + std::to_string(bytes.back());
        }
        ASSERT_FALSE(bytes.empty());
        EXPECT_TRUE(std::is_sorted(bytes.begin(), bytes.end())) << seen;
        EXPECT_GE(bytes.front(), 0) << seen;
        EXPECT_GT(bytes.back(), 0) << seen;
        EXPECT_LE(bytes.back(), 59999) << seen;
        if (slow_location) {
            EXPECT_EQ(bytes.front(), 0) << seen;
        }
    }
}

} // namespace
} // namespace box_session_test
