/* The session caches: path cache keys and replacement, the upload-session
 * table, and releasing both as session end does. */
#include <gtest/gtest.h>

#include "tarvex_box_common.h"

namespace {

tarvex_box_upload_session_t *upload(const char *path)
{
    auto *u = static_cast<tarvex_box_upload_session_t *>(calloc(1, sizeof(tarvex_box_upload_session_t)));
    u->name = strdup(path);
    u->id = strdup("S1");
    u->part_array = json_array();
    return u;
}

TEST(BoxPathCache, KeysReplacementAndRelease)
{
    auto *box = static_cast<tarvex_box_session_t *>(calloc(1, sizeof(tarvex_box_session_t)));
    ASSERT_EQ(tarvex_box_path_cache_init(&box->cache), TARVEX_SUCCESS);
    tarvex_box_path_info_t *root = tarvex_box_path_cache_query(&box->cache, "/");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->id, "0");
    EXPECT_EQ(root->parent_id, nullptr);

    const struct { const char *base, *key, *id; } rows[] = {
        {"/", "/x", "42"}, {"/d", "/d/x", "42"}, {nullptr, "x", "42"}, {"", "x", "43"},
        {"/", "/x", "44"}};
    for (const auto &r : rows) {
        tarvex_box_path_info_t info = {};
        info.name = const_cast<char *>("x");
        info.id = const_cast<char *>(r.id);
        ASSERT_EQ(tarvex_box_path_cache_update(&box->cache, &info, r.base), TARVEX_SUCCESS);
        tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&box->cache, r.key);
        ASSERT_NE(cached, nullptr) << r.key;
        EXPECT_STREQ(cached->name, r.key);
        EXPECT_STREQ(cached->id, r.id); /* a later entry replaces the earlier */
        EXPECT_STREQ(info.name, "x");   /* the caller's record is untouched */
    }
    EXPECT_EQ(tarvex_hashtable_size(&box->cache), 4);
    EXPECT_EQ(tarvex_box_path_cache_remove(&box->cache, "/never"), TARVEX_SUCCESS);

    /* A second upload session under one path is refused, the first kept;
     * session end releases both tables as start made them. */
    ASSERT_EQ(tarvex_box_path_cache_init(&box->upload_state), TARVEX_SUCCESS);
    tarvex_box_upload_session_t *first = upload("/big"), *second = upload("/big");
    ASSERT_EQ(tarvex_box_upload_state_update(&box->upload_state, first, "/big"), TARVEX_SUCCESS);
    tarvex_result_t refused = tarvex_box_upload_state_update(&box->upload_state, second, "/big");
    EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(refused)), TARVEX_GFS_ERROR_SYSTEM_ERROR);
    EXPECT_EQ(tarvex_box_upload_state_query(&box->upload_state, "/big"), first);
    tarvex_box_upload_session_free(second);
    tarvex_i_box_destroy(box); /* the leak checker watches this */
}

} // namespace
