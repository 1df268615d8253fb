/* Session start and end, and path resolution, against the Box emulator;
 * requests are observed through the emulator's request log. */
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "box_session_support.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;

TEST_F(session_test, LoginRefusedWhenRootListingIsUnauthorised)
{
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/0/items","count":1,
                         "status":401,"body":null})");
    EXPECT_EQ(start(), nullptr);

    auto starts = driver_->events(event_kind::session_start);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].session_arg, nullptr);
    /* A 401 without a Box error body is the permission refusal. */
    EXPECT_EQ(starts[0].reply.rfind("550 PERMISSION_DENIED", 0), 0u) << starts[0].reply;
    EXPECT_TRUE(driver_->events(event_kind::checksum_support).empty());
    /* Not retried: the answer gives no reason to. */
    EXPECT_EQ(requests().size(), 1u);
}

TEST_F(session_test, LoginRefusedWithUnknownToken)
{
    driver_->set_config("creds", creds_json("4242", "not-a-token"));
    EXPECT_EQ(driver_->start(iface(), "alice"), nullptr);
    auto log = requests();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].status, 401);
    EXPECT_EQ(log[0].header("Authorization"), "Bearer not-a-token");
}

TEST_F(session_test, LoginRefusedWithoutPolicyOrCredential)
{
    driver_->set_config("config", std::nullopt);
    EXPECT_EQ(start(), nullptr);
    EXPECT_EQ(error_code(driver_->last_result()), 500);
    EXPECT_EQ(error_message(driver_->last_result()),
              "GridFTP-Error: Missing storage gateway policy.");

    driver_->set_config("config", "{}");
    driver_->set_config("creds", std::nullopt);
    EXPECT_EQ(driver_->start(iface(), "alice"), nullptr);
    EXPECT_NE(driver_->last_result(), TARVEX_SUCCESS);
    EXPECT_TRUE(requests().empty());
}

/* The one test that uses the real home directory of the user: session
 * start makes "$HOME/.tarvex" from the password entry and the pacing files
 * are named after the Box user id.  Only what the test created is removed. */
TEST_F(session_test, LoginListsRootOnceAndCreatesPacingFiles)
{
    seed(R"([{"path":"/a","type":"folder"},{"path":"/f.txt","type":"file","content":"x"}])");
    const std::filesystem::path home = getpwuid(getuid())->pw_dir;
    const std::filesystem::path dot = home / ".tarvex", box_r = dot / "box-r";
    const std::string user_id = "ns-test-" + std::to_string(getpid());
    const std::filesystem::path files[] = {box_r / user_id, box_r / (user_id + "u")};
    ASSERT_FALSE(std::filesystem::exists(files[0]));
    /* Earlier session starts of this program may have made it already. */
    if (!home_dot_existed())
        rmdir(dot.c_str());
    /* Removes, however the test ends, what it created and nothing else. */
    struct cleanup {
        const std::filesystem::path &dot, &box_r;
        const std::filesystem::path *files;
        bool had_dot = std::filesystem::exists(dot);
        bool had_box_r = std::filesystem::exists(box_r);
        ~cleanup()
        {
            std::error_code ignored;
            std::filesystem::remove(files[0], ignored);
            std::filesystem::remove(files[1], ignored);
            if (!had_box_r)
                std::filesystem::remove(box_r, ignored);
            if (!had_dot)
                std::filesystem::remove(dot, ignored);
        }
    } created{dot, box_r, files};
    const bool had_dot = created.had_dot;

    const char *saved_retry_path = tarvex_i_box_retry_path;
    tarvex_i_box_retry_path = "$HOME/.tarvex/box-r";
    tarvex_box_session_t *box = start(user_id);
    tarvex_i_box_retry_path = saved_retry_path;
    ASSERT_NE(box, nullptr) << driver_->events(event_kind::session_start)[0].reply;

    struct stat st = {};
    ASSERT_EQ(stat(dot.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    if (!had_dot) {
        EXPECT_EQ(st.st_mode & 07777, 0700u);
    }
    for (const auto &file : files) {
        EXPECT_TRUE(std::filesystem::is_regular_file(file)) << file;
        EXPECT_EQ(std::filesystem::file_size(file), 24u) << file;
    }

    auto starts = driver_->events(event_kind::session_start);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].home_dir.value_or(""), "/");
    auto cksm = driver_->events(event_kind::checksum_support);
    ASSERT_EQ(cksm.size(), 1u);
    EXPECT_EQ(cksm[0].text.value_or(""), "SHA1:1;MD5:8;");

    auto log = requests();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(listed_folder(log[0]), "0");
    /* The root's children are cached under their paths. */
    EXPECT_NE(tarvex_box_path_cache_query(&box->cache, "/a"), nullptr);
    EXPECT_NE(tarvex_box_path_cache_query(&box->cache, "/f.txt"), nullptr);

    driver_->destroy(iface(), session_);
    session_ = nullptr;
}

class resolve_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/a/b","type":"file","content":"bb"},
                        {"path":"/a/c/d","type":"file","content":"dd"},
                        {"path":"/e","type":"folder"}])");
        ASSERT_NE(start(), nullptr);
        clear_requests();
    }

    /* Folder ids of the listing requests made since the last call. */
    std::vector<std::string> listings()
    {
        std::vector<std::string> folders;
        for (const auto &entry : requests())
            folders.push_back(listed_folder(entry));
        clear_requests();
        return folders;
    }

    tarvex_result_t resolve(const char *path)
    {
        entry_ = parent_ = reinterpret_cast<tarvex_box_path_info_t *>(&sentinel_);
        return tarvex_box_path_resolve(session_, path, &entry_, &parent_);
    }

    std::map<std::string, std::string> ids_;
    tarvex_box_path_info_t *entry_ = nullptr;
    tarvex_box_path_info_t *parent_ = nullptr;
    int sentinel_ = 0;
};

using strings = std::vector<std::string>;

TEST_F(resolve_test, RootNeedsNoRequest)
{
    ASSERT_EQ(resolve("/"), TARVEX_SUCCESS);
    ASSERT_NE(entry_, nullptr);
    EXPECT_STREQ(entry_->id, "0");
    EXPECT_EQ(parent_, nullptr);
    EXPECT_EQ(listings(), strings{});
}

TEST_F(resolve_test, ListsEachFolderOnceAndNeverTheRoot)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->name, "/a/b");
    EXPECT_STREQ(entry_->id, ids_["/a/b"].c_str());
    EXPECT_STREQ(parent_->name, "/a");
    EXPECT_TRUE(parent_->listed);
    EXPECT_EQ(listings(), strings{ids_["/a"]});

    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    ASSERT_EQ(resolve("/a/c/d"), TARVEX_SUCCESS);
    EXPECT_STREQ(parent_->name, "/a/c");
    EXPECT_EQ(listings(), strings{ids_["/a/c"]});

    /* A trailing "/" gives the item itself, file or not, without parent. */
    ASSERT_EQ(resolve("/a/b/"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->name, "/a/b");
    EXPECT_EQ(parent_, nullptr);
    ASSERT_EQ(resolve("/a/c/"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->name, "/a/c");
    EXPECT_EQ(listings(), strings{});
}

TEST_F(resolve_test, MissingNamesInListedFoldersNeedNoRequest)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    listings();

    struct row {
        const char *path;
        const char *parent; /* nullptr: none */
    } rows[] = {{"/a/missing", "/a"}, {"/x/y", nullptr}, {"/missing", "/"},
                {"/a/missing/deeper", nullptr}, {"/a//b", nullptr}, {"//a", nullptr}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.path);
        tarvex_result_t result = resolve(r.path);
        EXPECT_EQ(error_code(result), 550);
        EXPECT_EQ(error_class(result), "PATH_NOT_FOUND");
        EXPECT_EQ(error_message(result), std::string("GridFTP-Path: \"") + r.path + "\"");
        EXPECT_EQ(entry_, nullptr);
        if (r.parent == nullptr) {
            EXPECT_EQ(parent_, nullptr);
        } else {
            ASSERT_NE(parent_, nullptr);
            EXPECT_STREQ(parent_->name, r.parent);
        }
    }
    EXPECT_EQ(listings(), strings{});

    /* Created on Box after the root was listed: not seen this session. */
    seed(R"([{"path":"/late","type":"file","content":"x"}])");
    EXPECT_EQ(error_class(resolve("/late")), "PATH_NOT_FOUND");
    EXPECT_EQ(listings(), strings{});
}

TEST_F(resolve_test, StaleEntriesAreDroppedAndTheirFolderListedAgain)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    listings();

    /* The cache believes /a/b lives elsewhere now. */
    tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&session_->cache, "/a/b");
    free(cached->parent_id);
    cached->parent_id = strdup("999");
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->parent_id, ids_["/a"].c_str());
    EXPECT_STREQ(parent_->name, "/a");
    EXPECT_EQ(listings(), strings{ids_["/a"]});

    /* A stale intermediate folder makes its own folder (the root) listed;
     * the entries below it stay cached and still answer. */
    cached = tarvex_box_path_cache_query(&session_->cache, "/a");
    free(cached->parent_id);
    cached->parent_id = strdup("999");
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(parent_->parent_id, "0");
    EXPECT_FALSE(parent_->listed);
    EXPECT_EQ(listings(), strings{"0"});

    /* Gone from Box: the stale entry is dropped and stays missing. */
    cached = tarvex_box_path_cache_query(&session_->cache, "/a/b");
    free(cached->parent_id);
    cached->parent_id = strdup("999");
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/)" + ids_["/a"] +
                     R"(/items","count":1,"status":200,"body":{"entries":[],"limit":300}})");
    tarvex_result_t result = resolve("/a/b");
    EXPECT_EQ(error_class(result), "PATH_NOT_FOUND");
    EXPECT_EQ(entry_, nullptr);
    EXPECT_STREQ(parent_->name, "/a");
    EXPECT_EQ(tarvex_box_path_cache_query(&session_->cache, "/a/b"), nullptr);
    EXPECT_EQ(listings(), strings{ids_["/a"]});
}

TEST_F(resolve_test, FailedListingIsTheResult)
{
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/[0-9]+/items","count":1,
                         "status":404,"body":{"type":"error","status":404,"code":"not_found",
                         "context_info":{"errors":[{"name":"a"}]}}})");
    tarvex_result_t result = resolve("/a/b");
    EXPECT_EQ(error_code(result), 550);
    EXPECT_EQ(error_message(result), "GridFTP-Path: \"a\"");
    /* Neither output is written when the walk could not finish. */
    EXPECT_EQ(entry_, reinterpret_cast<tarvex_box_path_info_t *>(&sentinel_));
    EXPECT_EQ(parent_, reinterpret_cast<tarvex_box_path_info_t *>(&sentinel_));
    EXPECT_FALSE(tarvex_box_path_cache_query(&session_->cache, "/a")->listed);

    /* A file taken for a folder is listed as one, and Box refuses. */
    result = resolve("/a/b/c");
    EXPECT_NE(result, TARVEX_SUCCESS);
    EXPECT_EQ(listings().back(), ids_["/a/b"]);
}

} // namespace
} // namespace box_session_test
