/* Session start and end, and path resolution, against the Box emulator;
 * requests are observed through its request log. */
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "box_session_support.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;
namespace fs = std::filesystem;

TEST_F(session_test, LoginRefusedWhenRootListingIsUnauthorised)
{
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,
                         "status":401,"body":null})");
    EXPECT_EQ(start(), nullptr);
    auto starts = driver_->events(event_kind::session_start);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].session_arg, nullptr);
    /* A 401 without a Box error body is the permission refusal. */
    EXPECT_EQ(starts[0].reply, "550 PERMISSION_DENIED\r\n");
    EXPECT_TRUE(driver_->events(event_kind::checksum_support).empty());
    EXPECT_EQ(requests().size(), 1u); /* nothing says a retry would help */
}

TEST_F(session_test, LoginRefusedWithoutPolicy)
{
    driver_->set_config("config", std::nullopt);
    EXPECT_EQ(start(), nullptr);
    EXPECT_EQ(error_code(driver_->last_result()), 500);
    EXPECT_EQ(error_message(driver_->last_result()),
              "GridFTP-Error: Missing storage gateway policy.");
    EXPECT_TRUE(requests().empty());
}

/* The one test that uses the real home of the user: "$HOME/.tarvex" and
 * the pacing files named after the Box user id.  It removes only what it
 * created, however it ends. */
TEST_F(session_test, LoginListsRootOnceAndCreatesPacingFiles)
{
    seed(R"([{"path":"/a","type":"folder"},{"path":"/f.txt","content":"x"}])");
    const fs::path dot = home_dot(), box_r = dot / "box-r";
    const std::string user_id = "ns-test-" + std::to_string(getpid());
    const fs::path files[] = {box_r / user_id, box_r / (user_id + "u")};
    ASSERT_FALSE(fs::exists(files[0]));
    if (!home_dot_existed())
        rmdir(dot.c_str()); /* made by an earlier start of this program */
    struct cleanup {
        const fs::path &dot, &box_r, *files;
        bool had_dot = fs::exists(dot), had_box_r = fs::exists(box_r);
        ~cleanup()
        {
            std::error_code ignored;
            for (int i = 0; i < 2; i++)
                fs::remove(files[i], ignored);
            if (!had_box_r)
                fs::remove(box_r, ignored);
            if (!had_dot)
                fs::remove(dot, ignored);
        }
    } created{dot, box_r, files};

    const char *saved = tarvex_i_box_retry_path;
    tarvex_i_box_retry_path = "$HOME/.tarvex/box-r";
    tarvex_box_session_t *box = start(user_id);
    tarvex_i_box_retry_path = saved;
    ASSERT_NE(box, nullptr) << driver_->events(event_kind::session_start)[0].reply;

    struct stat st = {};
    ASSERT_EQ(stat(dot.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    if (!created.had_dot) {
        EXPECT_EQ(st.st_mode & 07777, 0700u);
    }
    for (const auto &file : files)
        EXPECT_EQ(fs::file_size(file), 24u) << file;

    EXPECT_EQ(driver_->events(event_kind::session_start)[0].home_dir.value_or(""), "/");
    EXPECT_EQ(driver_->events(event_kind::checksum_support).at(0).text.value_or(""),
              "SHA1:1;MD5:8;");
    EXPECT_EQ(listings(), strings{"0"});
    EXPECT_NE(tarvex_box_path_cache_query(&box->cache, "/f.txt"), nullptr);
    driver_->destroy(iface(), session_);
    session_ = nullptr;
}

class resolve_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/a/b","content":"bb"},{"path":"/a/c/d","content":"dd"}])");
        ASSERT_NE(start(), nullptr);
        clear_requests();
    }
    tarvex_result_t resolve(const char *path)
    {
        entry_ = parent_ = &untouched_;
        return tarvex_box_path_resolve(session_, path, &entry_, &parent_);
    }
    std::string parent_name() { return parent_ ? parent_->name : "<none>"; }
    /* Makes the cache believe `path` now lives in another folder. */
    void make_stale(const char *path)
    {
        tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&session_->cache, path);
        free(cached->parent_id);
        cached->parent_id = strdup("999");
    }

    std::map<std::string, std::string> ids_;
    tarvex_box_path_info_t *entry_ = nullptr, *parent_ = nullptr, untouched_ = {};
};

TEST_F(resolve_test, ListsEachFolderOnceAndNeverTheRoot)
{
    ASSERT_EQ(resolve("/"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->id, "0");
    EXPECT_EQ(parent_, nullptr);
    EXPECT_EQ(listings(), strings{});

    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->id, ids_["/a/b"].c_str());
    EXPECT_EQ(parent_name(), "/a");
    EXPECT_EQ(listings(), strings{ids_["/a"]});

    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    ASSERT_EQ(resolve("/a/b/"), TARVEX_SUCCESS); /* the file itself, no parent */
    EXPECT_STREQ(entry_->name, "/a/b");
    EXPECT_EQ(parent_, nullptr);
    EXPECT_EQ(listings(), strings{});
}

TEST_F(resolve_test, MissingNamesOfListedFoldersNeedNoRequest)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    seed(R"([{"path":"/late","content":"x"}])"); /* after the root listing */
    listings();
    struct {
        const char *path, *parent;
    } rows[] = {{"/a/missing", "/a"}, {"/missing", "/"},        {"/late", "/"},
                {"/x/y", "<none>"},   {"/a/nope/z", "<none>"}, {"/a//b", "<none>"},
                {"//a", "<none>"}};
    for (const auto &r : rows) {
        tarvex_result_t result = resolve(r.path);
        EXPECT_EQ(error_code(result), 550) << r.path;
        EXPECT_EQ(error_class(result), "PATH_NOT_FOUND") << r.path;
        EXPECT_EQ(error_message(result), std::string("GridFTP-Path: \"") + r.path + "\"");
        EXPECT_EQ(entry_, nullptr) << r.path;
        EXPECT_EQ(parent_name(), r.parent) << r.path;
    }
    EXPECT_EQ(listings(), strings{});
}

TEST_F(resolve_test, StaleEntriesAreDroppedAndTheirFolderListedAgain)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    listings();
    make_stale("/a/b");
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->parent_id, ids_["/a"].c_str());
    EXPECT_EQ(listings(), strings{ids_["/a"]});

    /* A stale folder on the way: its own folder, the root, is listed. */
    make_stale("/a");
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_EQ(listings(), strings{"0"});

    /* Gone from Box: dropped, and missing. */
    make_stale("/a/b");
    script_page(ids_["/a"], R"({"entries":[]})");
    EXPECT_EQ(error_class(resolve("/a/b")), "PATH_NOT_FOUND");
    EXPECT_EQ(parent_name(), "/a");
    EXPECT_EQ(tarvex_box_path_cache_query(&session_->cache, "/a/b"), nullptr);
    EXPECT_EQ(listings(), strings{ids_["/a"]});
}

TEST_F(resolve_test, FailedListingIsTheResult)
{
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/[0-9]+/items","count":1,
        "status":404,"body":{"type":"error","status":404,"code":"not_found",
        "context_info":{"errors":[{"name":"a"}]}}})");
    tarvex_result_t result = resolve("/a/b");
    EXPECT_EQ(error_message(result), "GridFTP-Path: \"a\"");
    EXPECT_EQ(entry_, &untouched_); /* neither output written */
    EXPECT_EQ(parent_, &untouched_);

    /* A file on the way is listed as a folder, and Box refuses. */
    EXPECT_EQ(error_code(resolve("/a/b/c")), 550);
    EXPECT_EQ(listings(), (strings{ids_["/a"], ids_["/a"], ids_["/a/b"]}));
}

} // namespace
} // namespace box_session_test
