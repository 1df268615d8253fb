/* The session caches: path cache keys and replacement, the upload-session
 * table, and releasing both as session end does. */
#include <gtest/gtest.h>

#include "tarvex_box_common.h"

namespace {

tarvex_box_path_info_t item(const char *name, const char *id, uint64_t size = 0)
{
    tarvex_box_path_info_t info = {};
    info.name = const_cast<char *>(name);
    info.id = const_cast<char *>(id);
    info.parent_id = const_cast<char *>("0");
    info.size = size;
    return info;
}

tarvex_box_upload_session_t *upload(const char *path)
{
    auto *u = static_cast<tarvex_box_upload_session_t *>(calloc(1, sizeof(tarvex_box_upload_session_t)));
    u->name = strdup(path);
    u->id = strdup("S1");
    u->part_array = json_array();
    return u;
}

TEST(BoxPathCache, KeysReplacementAndRemoval)
{
    tarvex_box_session_t box = {};
    ASSERT_EQ(tarvex_box_path_cache_init(&box.cache), TARVEX_SUCCESS);
    tarvex_box_path_info_t *root = tarvex_box_path_cache_query(&box.cache, "/");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->id, "0");
    EXPECT_EQ(root->parent_id, nullptr);
    EXPECT_EQ(root->type, TARVEX_BOX_FOLDER);

    struct {
        const char *base, *key;
    } rows[] = {{"/", "/x"}, {"/d", "/d/x"}, {nullptr, "x"}, {"", "x"}, {"/d/", "/d//x"}};
    for (const auto &r : rows) {
        tarvex_box_path_info_t info = item("x", "42");
        ASSERT_EQ(tarvex_box_path_cache_update(&box.cache, &info, r.base), TARVEX_SUCCESS);
        tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&box.cache, r.key);
        ASSERT_NE(cached, nullptr) << r.key;
        EXPECT_STREQ(cached->name, r.key);
        EXPECT_STREQ(info.name, "x"); /* the caller's record is untouched */
    }
    EXPECT_EQ(tarvex_box_path_cache_query(&box.cache, "/X"), nullptr);

    /* A later entry replaces the earlier one, clearing `listed`. */
    tarvex_box_path_cache_query(&box.cache, "/x")->listed = true;
    tarvex_box_path_info_t later = item("x", "43", 20);
    ASSERT_EQ(tarvex_box_path_cache_update(&box.cache, &later, "/"), TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_hashtable_size(&box.cache), 5);
    EXPECT_STREQ(tarvex_box_path_cache_query(&box.cache, "/x")->id, "43");
    EXPECT_FALSE(tarvex_box_path_cache_query(&box.cache, "/x")->listed);

    /* Removing by the record's own key, or a key never cached. */
    EXPECT_EQ(tarvex_box_path_cache_remove(&box.cache,
                                           tarvex_box_path_cache_query(&box.cache, "/x")->name),
              TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_path_cache_query(&box.cache, "/x"), nullptr);
    EXPECT_EQ(tarvex_box_path_cache_remove(&box.cache, "/never"), TARVEX_SUCCESS);
    tarvex_box_path_info_t no_id = item("g", nullptr);
    EXPECT_NE(tarvex_box_path_cache_update(&box.cache, &no_id, "/"), TARVEX_SUCCESS);

    /* Session end with the tables as session start makes them: the upload
     * table starts with a root path record of its own. */
    ASSERT_EQ(tarvex_box_path_cache_init(&box.upload_state), TARVEX_SUCCESS);
    tarvex_box_upload_session_t *first = upload("/big"), *second = upload("/big");
    ASSERT_EQ(tarvex_box_upload_state_update(&box.upload_state, first, "/big"), TARVEX_SUCCESS);
    tarvex_result_t refused = tarvex_box_upload_state_update(&box.upload_state, second, "/big");
    EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(refused)), TARVEX_GFS_ERROR_SYSTEM_ERROR);
    EXPECT_EQ(tarvex_box_upload_state_query(&box.upload_state, "/big"), first);
    tarvex_box_upload_session_free(second);
    auto *heap = static_cast<tarvex_box_session_t *>(calloc(1, sizeof(box)));
    *heap = box;
    tarvex_i_box_destroy(heap); /* the leak checker watches this */
}

TEST(BoxUploadTable, RemoveReleases)
{
    tarvex_hashtable_t table = nullptr;
    ASSERT_EQ(tarvex_box_upload_state_init(&table), TARVEX_SUCCESS);
    ASSERT_EQ(tarvex_box_upload_state_update(&table, upload("/a"), "/a"), TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_upload_state_remove(&table, "/a"), TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_box_upload_state_query(&table, "/a"), nullptr);
    EXPECT_EQ(tarvex_box_upload_state_remove(&table, "/a"), TARVEX_SUCCESS);
    tarvex_hashtable_destroy_all(&table, tarvex_box_upload_session_free);
}

} // namespace
