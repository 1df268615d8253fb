/* The path cache: keys, replacement, and release as session end does it;
 * the markers that end a listing that would never end. */
#include <gtest/gtest.h>

#include <string>

#include "destroy.h"
#include "listing_markers.h"
#include "path_cache.h"
#include "tarvex_box_common.h"

TEST(BoxPathCache, KeysReplacementAndRelease)
{
    auto *box = static_cast<tarvex_box_session_t *>(calloc(1, sizeof(tarvex_box_session_t)));
    ASSERT_EQ(tarvex_box_path_cache_init(&box->cache), TARVEX_SUCCESS);
    ASSERT_EQ(tarvex_box_path_cache_init(&box->upload_state), TARVEX_SUCCESS);
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
    tarvex_i_box_destroy(box); /* both tables as start made them; the leak checker watches */
}

/* A listing takes new markers up to the page budget: far too many pages
 * for a test against the emulator, which pins the other end of a listing
 * that would never end, a marker seen twice (box_session_listing_test). */
TEST(BoxListingMarkers, ThePageBudgetEndsTheListing)
{
    auto message = [](tarvex_result_t result) {
        tarvex_object_t *error = tarvex_error_get(result);
        std::string text = error ? tarvex_error_get_message(error) : "";
        tarvex_object_free(error);
        return text;
    };
    tarvex_box_listing_markers markers;
    EXPECT_EQ(markers.take("", "5"), TARVEX_SUCCESS);
    for (size_t page = 1; page < tarvex_box_listing_markers::page_budget; page++)
        ASSERT_EQ(markers.take(std::to_string(page).c_str(), "5"), TARVEX_SUCCESS) << page;
    EXPECT_EQ(message(markers.take("one more", "5")),
              "The listing of Box folder 5 was stopped after 20000 pages.");
}
