/* Session start and path resolution against the Box emulator; requests are
 * observed through its request log. */
#include <sys/stat.h>
#include <filesystem>

#include "box_scratch.h"
#include "box_session_support.h"
#include "config.h"
#include "path_cache.h"
#include "path_resolve.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;
namespace fs = std::filesystem;

/* A session start makes "$HOME/.tarvex" (private) when it is missing, and
 * below it the pacing files named after the Box user id. */
TEST_F(session_test, LoginListsRootOnceAndCreatesPacingFiles)
{
    seed(R"([{"path":"/f.txt","content":"x"}])");
    const fs::path dot = tarvex_test::box_home::dir() + "/.tarvex", box_r = dot / "box-r";
    std::error_code ignored;
    fs::remove_all(dot, ignored); /* made by the starts of earlier tests */
    const char *saved = tarvex_i_box_retry_path;
    tarvex_i_box_retry_path = "$HOME/.tarvex/box-r";
    tarvex_box_session_t *box = start("77");
    tarvex_i_box_retry_path = saved;

    ASSERT_NE(box, nullptr) << driver_.events(event_kind::session_start)[0].reply;
    struct stat st = {};
    ASSERT_EQ(stat(dot.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u) << std::oct << st.st_mode;
    for (const fs::path &file : {box_r / "77", box_r / "77u"})
        EXPECT_EQ(fs::file_size(file, ignored), 24u) << file;
    EXPECT_EQ(listings(), strings{"0"});
    EXPECT_NE(tarvex_box_path_cache_query(&box->cache, "/f.txt"), nullptr);
}

class resolve_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/a/b","content":"bb"},{"path":"/a/c/d","content":"dd"}])");
        ASSERT_NE(start(), nullptr);
        take_requests();
    }
    tarvex_result_t resolve(const char *path)
    {
        entry_ = nullptr;
        return tarvex_box_path_resolve(session_, path, &entry_, nullptr);
    }
    /* Makes the cache believe `path` now lives in another folder. */
    void make_stale(const char *path)
    {
        tarvex_box_path_info_t *entry = cached(path);
        free(entry->parent_id);
        entry->parent_id = strdup("999");
    }

    std::map<std::string, std::string> ids_;
    tarvex_box_path_info_t *entry_ = nullptr;
};

/* An entry whose parent id no longer matches is dropped and its folder
 * listed again. */
TEST_F(resolve_test, StaleEntriesAreDroppedAndTheirFolderListedAgain)
{
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    listings();
    make_stale("/a/b");
    ASSERT_EQ(resolve("/a/b"), TARVEX_SUCCESS);
    EXPECT_STREQ(entry_->parent_id, ids_["/a"].c_str());
    EXPECT_EQ(listings(), strings{ids_["/a"]});

    /* Gone from Box meanwhile: dropped, and missing. */
    make_stale("/a/b");
    fault("GET", "^/2.0/folders/" + ids_["/a"] + "/items$", 1,
          R"("status":200,"body":{"entries":[]})");
    EXPECT_EQ(take_reply(resolve("/a/b")), "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: \"/a/b\"\r\n");
    EXPECT_EQ(cached("/a/b"), nullptr);
    EXPECT_EQ(listings(), strings{ids_["/a"]});
}

} // namespace
} // namespace box_session_test
