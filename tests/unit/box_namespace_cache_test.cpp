/* The session caches: path cache keys and replacement, the upload-session
 * table, and releasing both the way session end does. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tarvex_box_common.h"

namespace {

class BoxPathCache : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(tarvex_box_path_cache_init(&cache), TARVEX_SUCCESS); }
    void TearDown() override
    {
        tarvex_hashtable_destroy_all(&cache, [](void *datum) {
            tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t *>(datum));
        });
    }

    static tarvex_box_path_info_t item(const char *name, const char *id, uint64_t size = 0)
    {
        tarvex_box_path_info_t info = {};
        info.name = const_cast<char *>(name);
        info.id = const_cast<char *>(id);
        info.parent_id = const_cast<char *>("0");
        info.type = TARVEX_BOX_FILE;
        info.size = size;
        return info;
    }

    tarvex_hashtable_t cache = nullptr;
};

TEST_F(BoxPathCache, StartsWithTheRoot)
{
    tarvex_box_path_info_t *root = tarvex_box_path_cache_query(&cache, "/");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->name, "/");
    EXPECT_STREQ(root->id, "0");
    EXPECT_EQ(root->parent_id, nullptr);
    EXPECT_EQ(root->type, TARVEX_BOX_FOLDER);
    EXPECT_FALSE(root->listed);
    EXPECT_TRUE(root->freeme);
    EXPECT_EQ(tarvex_hashtable_size(&cache), 1);
}

TEST_F(BoxPathCache, KeysFromBaseAndName)
{
    struct row {
        const char *base;
        const char *key;
    } rows[] = {{"/", "/x"}, {"/d", "/d/x"}, {"/d/e", "/d/e/x"}, {nullptr, "x"}, {"", "x"},
                {"/d/", "/d//x"}};
    for (const row &r : rows) {
        tarvex_box_path_info_t info = item("x", "42");
        ASSERT_EQ(tarvex_box_path_cache_update(&cache, &info, r.base), TARVEX_SUCCESS);
        SCOPED_TRACE(r.key);
        tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&cache, r.key);
        ASSERT_NE(cached, nullptr);
        EXPECT_STREQ(cached->name, r.key);
        EXPECT_STREQ(cached->id, "42");
        /* The caller's record is untouched and still the caller's. */
        EXPECT_STREQ(info.name, "x");
        EXPECT_NE(cached, &info);
    }
    /* Keys are exact: no case folding, no trailing-slash folding. */
    EXPECT_EQ(tarvex_box_path_cache_query(&cache, "/X"), nullptr);
    EXPECT_EQ(tarvex_box_path_cache_query(&cache, "/d/x/"), nullptr);
}

TEST_F(BoxPathCache, LaterEntryReplacesEarlier)
{
    tarvex_box_path_info_t first = item("f", "1", 10);
    tarvex_box_path_info_t second = item("f", "2", 20);
    ASSERT_EQ(tarvex_box_path_cache_update(&cache, &first, "/"), TARVEX_SUCCESS);
    tarvex_box_path_cache_query(&cache, "/f")->listed = true;
    ASSERT_EQ(tarvex_box_path_cache_update(&cache, &second, "/"), TARVEX_SUCCESS);

    EXPECT_EQ(tarvex_hashtable_size(&cache), 2);
    tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&cache, "/f");
    ASSERT_NE(cached, nullptr);
    EXPECT_STREQ(cached->id, "2");
    EXPECT_EQ(cached->size, 20u);
    EXPECT_FALSE(cached->listed);
}

TEST_F(BoxPathCache, RemoveAndRefusals)
{
    EXPECT_EQ(tarvex_box_path_cache_remove(&cache, "/never"), TARVEX_SUCCESS);

    tarvex_box_path_info_t info = item("f", "1");
    ASSERT_EQ(tarvex_box_path_cache_update(&cache, &info, "/"), TARVEX_SUCCESS);
    /* Removing by the cached record's own key must not touch freed memory. */
    EXPECT_EQ(tarvex_box_path_cache_remove(&cache, tarvex_box_path_cache_query(&cache, "/f")->name),
              TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_path_cache_query(&cache, "/f"), nullptr);

    /* Without an id there is nothing to cache. */
    tarvex_box_path_info_t no_id = item("g", nullptr);
    EXPECT_NE(tarvex_box_path_cache_update(&cache, &no_id, "/"), TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_path_cache_query(&cache, "/g"), nullptr);
}

tarvex_box_upload_session_t *upload(const char *path, const char *id)
{
    auto *session =
        static_cast<tarvex_box_upload_session_t *>(calloc(1, sizeof(tarvex_box_upload_session_t)));
    session->name = strdup(path);
    session->id = strdup(id);
    session->part_array = json_array();
    return session;
}

TEST(BoxUploadTable, OneSessionPerPath)
{
    tarvex_hashtable_t table = nullptr;
    ASSERT_EQ(tarvex_box_upload_state_init(&table), TARVEX_SUCCESS);

    tarvex_box_upload_session_t *first = upload("/a/big", "S1");
    tarvex_box_upload_session_t *second = upload("/a/big", "S2");
    ASSERT_EQ(tarvex_box_upload_state_update(&table, first, first->name), TARVEX_SUCCESS);
    tarvex_result_t refused = tarvex_box_upload_state_update(&table, second, second->name);
    ASSERT_NE(refused, TARVEX_SUCCESS);
    /* Refused with the out-of-memory system error, the caller keeps it. */
    EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(refused)), TARVEX_GFS_ERROR_SYSTEM_ERROR);
    EXPECT_EQ(tarvex_box_upload_state_query(&table, "/a/big"), first);
    tarvex_box_upload_session_free(second);

    EXPECT_EQ(tarvex_box_upload_state_remove(&table, "/a/big"), TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_upload_state_query(&table, "/a/big"), nullptr);
    EXPECT_EQ(tarvex_box_upload_state_remove(&table, "/a/big"), TARVEX_SUCCESS);
    tarvex_box_upload_session_free(nullptr);
    tarvex_hashtable_destroy_all(&table, tarvex_box_upload_session_free);
}

/* Session end releases a session whose upload table was made like the path
 * cache (holding a root path record) and holds an open upload. */
TEST(BoxSessionRelease, TablesAsSessionStartLeavesThem)
{
    auto *box = static_cast<tarvex_box_session_t *>(calloc(1, sizeof(tarvex_box_session_t)));
    box->username = strdup("alice");
    box->user_id = strdup("123");
    box->access_token = strdup("t");
    ASSERT_EQ(tarvex_box_path_cache_init(&box->cache), TARVEX_SUCCESS);
    ASSERT_EQ(tarvex_box_path_cache_init(&box->upload_state), TARVEX_SUCCESS);
    tarvex_box_upload_session_t *open = upload("/big", "S1");
    ASSERT_EQ(tarvex_box_upload_state_update(&box->upload_state, open, "/big"), TARVEX_SUCCESS);
    tarvex_i_box_destroy(box); /* leak and memory checkers watch this */
}

} // namespace
