// Hashtable, UUIDs and string helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "full_match.h"
#include "tarvex_common.h"

namespace {

int released = 0;
int widest_limit = 0;

// The string hash, noting the bucket counts the table asks for.
int recording_hash(void *key, int limit)
{
    widest_limit = std::max(widest_limit, limit);
    return tarvex_hashtable_string_hash(key, limit);
}

void count_release(void *datum)
{
    released++;
    delete static_cast<int *>(datum);
}

} // namespace

// Keys are borrowed, not copied: their storage must stay put.
TEST(CommonHashtable, InsertLookupGrowRemoveAndDestroy)
{
    tarvex_hashtable_t table;
    widest_limit = 0;
    ASSERT_EQ(tarvex_hashtable_init(&table, 7, recording_hash, tarvex_hashtable_string_keyeq),
              0);
    char a[] = "/a", a_again[] = "/a", b[] = "/A";
    EXPECT_EQ(tarvex_hashtable_insert(&table, a, new int(-1)), 0);
    int refused = 0;
    EXPECT_NE(tarvex_hashtable_insert(&table, a_again, &refused), 0);
    EXPECT_EQ(tarvex_hashtable_lookup(&table, b), nullptr) << "keys are case sensitive";
    const int n = 10000;
    std::vector<std::string> keys;
    keys.reserve(n);
    for (int i = 0; i < n; i++) {
        keys.push_back("/folder/" + std::to_string(i));
        ASSERT_EQ(tarvex_hashtable_insert(&table, keys.back().data(), new int(i)), 0);
    }
    EXPECT_EQ(tarvex_hashtable_size(&table), n + 1);
    // Rehashed into enough buckets to keep chains at most two long on average.
    EXPECT_GE(widest_limit, n / 2);
    for (int i = 0; i < n; i += 97) {
        std::string probe = "/folder/" + std::to_string(i);
        auto *datum = static_cast<int *>(tarvex_hashtable_lookup(&table, probe.data()));
        ASSERT_NE(datum, nullptr);
        EXPECT_EQ(*datum, i);
    }
    int visited = 0;
    tarvex_hashtable_foreach(&table, [](void *, void *, void *arg) {
        return ++*static_cast<int *>(arg) == 100 ? 1 : 0;
    }, &visited);
    EXPECT_EQ(visited, 100);
    delete static_cast<int *>(tarvex_hashtable_remove(&table, a_again));
    EXPECT_EQ(tarvex_hashtable_remove(&table, a_again), nullptr);
    EXPECT_EQ(tarvex_hashtable_lookup(&table, a), nullptr);
    released = 0;
    tarvex_hashtable_destroy_all(&table, count_release);
    EXPECT_EQ(released, n);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(tarvex_hashtable_destroy(&table), 0);
    EXPECT_EQ(tarvex_hashtable_lookup(&table, a), nullptr);
}

TEST(CommonUuid, FormatAndUniqueness)
{
    // "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx", lower-case hex, y in 8..b.
    const char *well_formed = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
    std::set<std::string> seen;
    for (int i = 0; i < 1000; i++) {
        tarvex_uuid_t uuid;
        ASSERT_EQ(tarvex_uuid_create(&uuid), 0);
        ASSERT_TRUE(full_match(uuid.text, well_formed)) << uuid.text;
        seen.insert(uuid.text);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(CommonString, CreatedAtAnyLength)
{
    std::string big(10000, 'x');
    char *text = tarvex_common_create_string("%s-%d-%s", "a", 42, big.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), "a-42-" + big);
    free(text);
}
