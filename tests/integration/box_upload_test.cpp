/*
 * The receive operation against the emulator: which way a store goes, the
 * file already there, the upload limit, the one-request upload, upload
 * sessions with their parts, restarts and commit.  Requests are observed
 * in the emulator's log, stored files through its control interface.  The
 * large cases use Box's real sizes (50 MiB threshold, 8 MiB parts); the
 * others lower both so that a few kilobytes make several parts.
 */
#include <algorithm>

#include "box_session_support.h"
#include "config.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "tarvex_box_raii.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;
constexpr uint64_t mib = uint64_t{1024} * 1024;
const std::string sessions = "/api/2.0/files/upload_sessions";

std::vector<log_entry> parts(const std::vector<log_entry> &log)
{
    return only(log, "PUT", sessions + "/");
}
std::vector<log_entry> commits(const std::vector<log_entry> &log)
{
    return only(log, "POST", sessions + "/", "/commit");
}

class upload_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/d/old.txt","content":"old"},{"path":"/d/sub","type":"folder"}])");
        ASSERT_NE(start(), nullptr);
        /* /d listed here, so that a test sees only its store's requests. */
        ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/old.txt", nullptr, nullptr),
                  TARVEX_SUCCESS);
        take_requests();
    }
    using session_test::store;
    std::string store(const std::string &path, const std::string &data, tarvex_off_t alloc_size)
    {
        driver_.set_receive_data(data);
        return store(driver_, path, alloc_size);
    }
    /* The item at `path` on the emulator, as JSON. */
    static tarvex_box_json_ptr item(const std::string &path)
    {
        return tarvex_box_json_ptr(json_loads(emulator().item(path).c_str(), 0, nullptr));
    }

    /* The earlier versions Box keeps of the file at `path`. */
    static size_t versions(const std::string &path)
    {
        return json_array_size(json_object_get(item(path).get(), "versions"));
    }
    static std::string md5_property(const std::string &path)
    {
        tarvex_box_json_ptr doc = item(path);
        json_t *props = json_object_get(
            json_object_get(json_object_get(doc.get(), "metadata"), "global"), "properties");
        const char *md5 = json_string_value(json_object_get(props, "tarvex-md5"));
        return md5 ? md5 : "";
    }

    std::map<std::string, std::string> ids_;
};

/* The limit is inclusive; above it the store is refused with the four
 * details, after the old file of that name was already deleted. */
TEST_F(upload_test, UploadLimitIsCheckedAfterTheOldFileIsGone)
{
    session_->max_upload = 1000;
    EXPECT_EQ(store("/d/exact.bin", std::string(1000, 'e'), 1000), "");
    take_requests();
    EXPECT_EQ(store("/d/old.txt", std::string(1001, 'x'), 1001),
              "451-QUOTA_EXCEEDED\r\n451-Box-Path: \"/d/old.txt\"\r\n"
              "451-Box-Upload-Size: \"1001\"\r\n451-Box-Max-Upload-Size: \"1000\"\r\n"
              "451 Box-Error: \"Upload size is too large.\"\r\n");
    auto log = take_requests();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].method + " " + log[0].path, "DELETE /2.0/files/" + ids_["/d/old.txt"]);
    EXPECT_EQ(emulator().item("/d/old.txt"), "");
}

/* The old file goes first; a failed deletion, or a folder of that name,
 * stops the store with the reason and leaves things as they were. */
TEST_F(upload_test, ExistingNameIsDeletedFirst)
{
    EXPECT_EQ(store("/d/old.txt", "new", 3), "");
    EXPECT_EQ(emulator().content("/d/old.txt"), "new");
    take_requests(); /* the DELETE, then the upload: box_calls_test.cpp */

    const std::string details = "Box-Details: \"A file with this name already exists and must be "
                                "deleted before upload, but deletion failed.\"";
    emulator().fault(R"({"method":"DELETE","status":403,"body":null})");
    EXPECT_EQ(store("/d/old.txt", "newer", 5), "550-PERMISSION_DENIED\r\n550 " + details + "\r\n");
    std::string reply = store("/d/sub", "file over folder", 16);
    EXPECT_EQ(reply, "451-Path is a folder.\r\n451 " + details + "\r\n");
    EXPECT_EQ(take_requests().size(), 1u); /* the refused DELETE alone */
    EXPECT_EQ(emulator().content("/d/old.txt"), "new");
}

/* A restart with no upload session of this login to continue, one of a
 * one-request upload (else a file of its tail alone), and a store on the
 * root folder itself, are refused before anything is touched. */
TEST_F(upload_test, RefusedBeforeTheOldFileIsTouched)
{
    const struct {
        const char *path;
        tarvex_off_t offset, alloc_size;
        const char *reply;
    } rows[] = {
        /* APPE of the whole file's length, then REST at a part boundary:
         * both announce a size that would take an upload session. */
        {"/d/old.txt", 3, 62914560, "553 MULTI_PART_UPLOAD_NOT_FOUND\r\n"},
        {"/d/old.txt", 8388608, 62914560, "553 MULTI_PART_UPLOAD_NOT_FOUND\r\n"},
        {"/d/old.txt", 3, 0, "553 APPEND_NOT_SUPPORTED\r\n"},
        {"/", 0, 5, "553-INVALID_PATH_NAME\r\n553 GridFTP-Path: / is a folder\r\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.path) + " from " + std::to_string(r.offset));
        tarvex_test::driver d;
        d.set_receive_data("new");
        if (r.offset != 0)
            d.add_write_range(r.offset, -1);
        EXPECT_EQ(store(d, r.path, r.alloc_size, r.offset == 0), r.reply);
        EXPECT_TRUE(take_requests().empty());
        EXPECT_EQ(emulator().content("/d/old.txt"), "old");
    }
}

/* A client that announced its size and sends another count of bytes has
 * its one request abandoned before the body is complete: Box keeps
 * nothing of it. */
TEST_F(upload_test, OneRequestTakesExactlyTheAnnouncedCount)
{
    const struct {
        uint64_t sent, announced;
        const char *reply;
    } rows[] = {
        {100000, 200000,
         "451 The client sent 100000 bytes where it announced 200000 (ALLO); nothing was "
         "stored.\r\n"},
        {150, 100,
         "451 The client sent more than the 100 bytes it announced (ALLO); nothing was "
         "stored.\r\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.sent);
        tarvex_test::driver d;
        d.set_receive_pattern(r.sent);
        EXPECT_EQ(store(d, "/d/counted.bin", static_cast<tarvex_off_t>(r.announced)), r.reply);
        EXPECT_EQ(emulator().item("/d/counted.bin"), "");
        /* Never answered: the body broke off (too many bytes may break it
         * before Box has seen the request at all). */
        for (const auto &post : only(take_requests(), "POST", "/api/2.0/files/content"))
            EXPECT_EQ(post.status, 0);
    }
}

/* Box's answer must name the stored file.  When it is lost after Box
 * stored the file (one request, or a commit), the file is looked up: there
 * with the bytes sent, the store succeeded. */
TEST_F(upload_test, AnswersThatNameNoFileOrAreLost)
{
    small_parts(2048, 1024);
    emulator().fault(R"({"method":"POST","path_regex":"content$","status":201,"body":{}})");
    EXPECT_EQ(store("/d/no-entry.bin", "abc", 3),
              "451 Box's answer to the upload names no file.\r\n");
    EXPECT_EQ(emulator().item("/d/no-entry.bin"), "");

    const struct {
        const char *fault;
        uint64_t size;
    } rows[] = {
        {R"({"method":"POST","path_regex":"files/content$","truncate_after":0})", 1000},
        {R"({"method":"POST","path_regex":"commit$","truncate_after":0,"reset":true})", 3000},
    };
    int n = 0;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        const std::string path = "/d/lost" + std::to_string(n++) + ".bin";
        emulator().fault(r.fault);
        tarvex_test::driver d;
        EXPECT_EQ(store_pattern(d, path, r.size), "");
        EXPECT_EQ(emulator().content(path), tarvex_test::pattern(r.size));
        tarvex_box_path_info_t *entry = cached(path);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->size, r.size);
        if (r.size > 2048) {
            EXPECT_EQ(md5_property(path), md5_of(tarvex_test::pattern(r.size)));
            EXPECT_FALSE(remembered(path));
        }
    }
}

/* With "replace": "new-version" a store over a file uploads a new version
 * of it: every way the store can fail leaves the old bytes current. */
TEST_F(upload_test, NewVersionLeavesTheOldBytesOnEveryFailure)
{
    tarvex_i_box_replace = TARVEX_BOX_REPLACE_NEW_VERSION;
    small_parts(2048, 1024);
    const std::string part = R"("method":"PUT","path_regex":"upload_sessions/[^/]+$")";
    const std::string commit = R"("method":"POST","path_regex":"commit$")";
    const std::string one = R"("method":"POST","path_regex":"^/api/2.0/files/[0-9]+/content$")";
    const struct {
        const char *name;
        std::string fault;
        uint64_t size, announced, broken_after;
    } rows[] = {
        {"refused size", "", 600, 600, 0}, /* the limit is 500 here */
        {"broken data connection", "", 3000, 0, 1500},
        {"broken data connection, parts", "", 3000, 3000, 1500},
        {"announced size not sent", "", 1000, 1500, 0},
        /* Three whole parts announced: the excess would fit no part. */
        {"more than announced, parts", "", 3500, 3072, 0},
        {"less than announced, parts", "", 2500, 3072, 0},
        {"Box refuses the upload", "{" + one + R"(,"status":503,"body":null})", 1000, 0, 0},
        {"answer lost, nothing stored", "{" + one + R"(,"drop":true})", 1000, 0, 0},
        {"part failing", "{" + part + R"(,"status":500,"body":null,"count":-1})", 3000, 3000, 0},
        {"commit failing", "{" + commit + R"(,"status":409,"body":null,"count":-1})", 3000,
         3000, 0},
    };
    int n = 0;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        const std::string path = "/d/kept" + std::to_string(n++) + ".txt";
        seed(R"([{"path":")" + path + R"(","content":"old","md5_property":"m"}])");
        session_->max_upload = r.size == 600 ? 500 : 53687091200;
        relist("/d"); /* /d was listed before the file was added */
        if (!r.fault.empty())
            emulator().fault(r.fault);
        tarvex_test::driver d;
        if (r.broken_after != 0)
            d.fail_receive_after(r.broken_after, "data channel closed");
        d.set_receive_pattern(r.size);
        EXPECT_NE(store(d, path, static_cast<tarvex_off_t>(r.announced)), "");
        EXPECT_EQ(emulator().content(path), "old");
        EXPECT_EQ(versions(path), 0u);
        EXPECT_EQ(md5_property(path), "m");
        emulator().control("DELETE", "/_emulator/faults");
    }
    session_->max_upload = 53687091200;

    /* Whole stores make a new version; the MD5 property follows the
     * content, also for a file stored in one request. */
    for (uint64_t size : {1000, 3000}) {
        SCOPED_TRACE(size);
        tarvex_test::driver d;
        EXPECT_EQ(store_pattern(d, "/d/old.txt", size), "");
        EXPECT_EQ(emulator().content("/d/old.txt"), tarvex_test::pattern(size));
        EXPECT_EQ(md5_property("/d/old.txt"), md5_of(tarvex_test::pattern(size)));
    }
    EXPECT_EQ(versions("/d/old.txt"), 2u);
    tarvex_box_path_info_t *entry = cached("/d/old.txt");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->id, ids_["/d/old.txt"].c_str());
    EXPECT_EQ(entry->size, 3000u);
}

/* Bytes stored as sent, in pieces of odd sizes, in one attempt whatever
 * happens; the answer's entry cached under the parent, with the time the
 * client asked for or Box's own.  The data connection is opened
 * (begin_transfer) before the first read: the server needs that to serve
 * the reads.  Every byte read is reported to the server (its transfer log
 * and progress count them), the one-byte last read too. */
TEST_F(upload_test, OneRequestUpload)
{
    std::string data;
    for (int i = 0; i < 180001; i++)
        data += static_cast<char>((i * 7 + i / 256) & 0xFF);
    driver_.set_read_chunk(1000);
    driver_.set_recv_modification_time(1500000000);
    EXPECT_EQ(store("/d/new.bin", data, 0), "");
    EXPECT_EQ(emulator().content("/d/new.bin"), data);
    auto events = driver_.events();
    auto first = [&](event_kind kind) {
        return std::find_if(events.begin(), events.end(),
                            [&](const auto &e) { return e.kind == kind; });
    };
    ASSERT_NE(first(event_kind::begin_transfer), events.end());
    EXPECT_LT(first(event_kind::begin_transfer), first(event_kind::bytes_received));
    tarvex_off_t reported = 0;
    for (const auto &e : events)
        if (e.kind == event_kind::bytes_received)
            reported += e.length;
    EXPECT_EQ(reported, static_cast<tarvex_off_t>(data.size()));
    tarvex_box_path_info_t *entry = cached("/d/new.bin");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->id, json_string_value(json_object_get(item("/d/new.bin").get(), "id")));
    EXPECT_EQ(entry->parent_id, ids_["/d"]);
    EXPECT_EQ(entry->modtime, 1500000000);
    EXPECT_EQ(entry->md5, nullptr); /* only upload sessions store one */

    driver_.set_recv_modification_time(-1);
    time_t before = time(nullptr);
    EXPECT_EQ(store("/d/now.txt", "now", 3), "");
    entry = cached("/d/now.txt");
    ASSERT_NE(entry, nullptr);
    EXPECT_GE(entry->modtime, before - 1);

    take_requests();
    for (const char *fault : {R"("status":503,"body":null)", R"("drop":true)"}) {
        emulator().fault(R"({"method":"POST","path_regex":"content$",)" + std::string(fault) + "}");
        EXPECT_NE(store("/d/once.bin", data, 0), "") << fault;
        EXPECT_EQ(only(take_requests(), "POST", "/api/2.0/files/content").size(), 1u) << fault;
    }
}

/* Box's real sizes (8 MiB parts): a broken store is remembered; a restart
 * continues on a part boundary only, and the file comes out whole, with
 * its MD5 property and cache record (the emulator checks each part's range
 * and digest, and the commit's).
 * Past the last part, nothing is sent; a login that never began the upload
 * cannot continue it. */
TEST_F(upload_test, BrokenStoreRestartsAtAPartBoundary)
{
    const uint64_t total = 60000000;
    const std::string content = tarvex_test::pattern(total);
    driver_.fail_receive_after(20000000, "data channel closed");
    EXPECT_NE(store_pattern(driver_, "/d/resume.bin", total).find("data channel closed"),
              std::string::npos);
    auto log = take_requests();
    EXPECT_EQ(parts(log).size(), 2u);
    EXPECT_TRUE(commits(log).empty());
    ASSERT_TRUE(remembered("/d/resume.bin"));

    tarvex_test::driver inside, past_end, restart, unknown;
    EXPECT_EQ(store_pattern(inside, "/d/resume.bin", total, 1000),
              "553 APPEND_NOT_SUPPORTED\r\n");
    EXPECT_EQ(store_pattern(past_end, "/d/resume.bin", total, 64 * mib),
              "451 Operation failed.\r\n");
    EXPECT_TRUE(parts(take_requests()).empty());

    restart.set_record_progress(false);
    EXPECT_EQ(store_pattern(restart, "/d/resume.bin", total, 16777216), "");
    log = take_requests();
    ASSERT_EQ(parts(log).size(), 6u);
    EXPECT_EQ(parts(log)[0].header("Content-Range"), "bytes 16777216-25165823/60000000");
    EXPECT_EQ(only(log, "POST", sessions).size(), 1u); /* the commit, no new session */
    EXPECT_STREQ(json_string_value(json_object_get(item("/d/resume.bin").get(), "sha1")),
                 sha1_of(content).c_str());
    EXPECT_EQ(md5_property("/d/resume.bin"), md5_of(content));
    tarvex_box_path_info_t *entry = cached("/d/resume.bin");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->md5, md5_of(content).c_str());
    EXPECT_FALSE(remembered("/d/resume.bin"));

    EXPECT_EQ(store_pattern(unknown, "/d/never.bin", total, 16777216),
              "553 MULTI_PART_UPLOAD_NOT_FOUND\r\n");
}

/* A fresh store over a broken one in the same login cannot remember a
 * second session for the path.  (A part whose connection drops is sent
 * again without counting twice in the file's digest: box_calls_test's
 * AttemptsOfEachCall, whose commit the emulator checks.) */
TEST_F(upload_test, ASecondSessionForABrokenStoreIsRefused)
{
    small_parts(2048, 1024);
    driver_.fail_receive_after(1500, "gone");
    EXPECT_NE(store_pattern(driver_, "/d/edge.bin", 3000).find("gone"), std::string::npos);
    tarvex_test::driver fresh;
    EXPECT_NE(store_pattern(fresh, "/d/edge.bin", 3000).find("Failed cache update!"),
              std::string::npos);
    EXPECT_EQ(only(take_requests(), "POST", sessions).size(), 2u);
}

/* Answers that cannot be worked with give a clear error, never a crash,
 * and leave nothing in the cache. */
TEST_F(upload_test, UnusableAnswersFromBox)
{
    small_parts(500, 4096); /* 10 bytes in one request, 3000 in one part */
    struct row {
        const char *fault;
        const char *message;
        uint64_t size;
    } rows[] = {
        {R"("POST","path_regex":"content$","status":201,"body":null)",
         "No metadata response after upload.", 10},
        {R"("POST","path_regex":"content$","status":201,"body":{"entries":[{"id":"7"}]})",
         "Failed info_parse!", 10},
        {R"("POST","path_regex":"content$","status":201,"body":"no json")",
         "Invalid JSON in response body", 10},
        {R"("POST","path_regex":"sessions$","status":201,"body":null)",
         "System error in malloc", 3000},
        {R"("POST","path_regex":"sessions$","status":201,
            "body":{"id":"S","part_size":0,"total_parts":0})",
         "451-Failed to parse session info!\r\n451 Invalid number of parts!", 3000},
        {R"("POST","path_regex":"sessions$","status":201,
            "body":{"id":"S","part_size":0,"total_parts":3})",
         "Invalid part size!", 3000},
        {R"("POST","path_regex":"sessions$","status":201,
            "body":{"part_size":1024,"total_parts":3})",
         "Failed to parse session info!", 3000},
        {R"("PUT","path_regex":"sessions/[^/]+$","status":200,"body":null)",
         "System error in malloc", 3000},
        {R"("PUT","path_regex":"sessions/[^/]+$","status":200,"body":{})",
         "invalid part upload response", 3000},
        {R"("POST","path_regex":"commit$","status":201,"body":null)",
         "No metadata response after upload.", 3000},
        {R"("POST","path_regex":"commit$","status":201,"body":{"entries":[{"id":"9"}]})",
         "Failed info_parse!", 3000},
    };
    int n = 0;
    for (const row &r : rows) {
        const std::string path = "/d/odd" + std::to_string(n++);
        emulator().fault(std::string(R"({"method":)") + r.fault + "}");
        tarvex_test::driver d;
        std::string reply = store_pattern(d, path, r.size);
        EXPECT_NE(reply.find(r.message), std::string::npos) << r.fault << "\n" << reply;
        EXPECT_EQ(cached(path), nullptr);
        emulator().control("DELETE", "/_emulator/faults");
    }

    /* A part earlier than the last without its record: the commit lacks it
     * and Box refuses the commit. */
    small_parts(2048, 1024);
    take_requests();
    emulator().fault(R"({"method":"PUT","path_regex":"sessions/[^/]+$","status":200,"body":{}})");
    EXPECT_NE(store_pattern(driver_, "/d/gap.bin", 3000), "");
    auto log = take_requests();
    ASSERT_EQ(commits(log).size(), 1u);
    EXPECT_EQ(commits(log)[0].status, 400);
}

} // namespace
} // namespace box_session_test
