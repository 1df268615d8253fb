// A chained hashtable with caller-owned keys.  It doubles its bucket array
// when the entries outnumber the buckets more than twice.
#include <cstdlib>
#include <cstring>

#include "tarvex_hashtable.h"

struct tarvex_hashtable_s {
    struct entry {
        void *key;
        void *datum;
        entry *next;
    };

    int bucket_count;
    int count;
    entry **buckets;
    tarvex_hashtable_hash_func_t hash;
    tarvex_hashtable_keyeq_func_t keyeq;
};

namespace {

using entry = tarvex_hashtable_s::entry;

constexpr int kDefaultBuckets = 16;
constexpr int kMaxLoad = 2;

int bucket_of(const tarvex_hashtable_s *t, void *key, int bucket_count)
{
    int index = t->hash(key, bucket_count);
    // A careless hash function must not take us out of the array.
    if (index < 0 || index >= bucket_count)
        index = static_cast<int>(static_cast<unsigned>(index) % static_cast<unsigned>(bucket_count));
    return index;
}

// Finds the link pointing at the entry with `key` (or at the chain's end).
entry **find_link(tarvex_hashtable_s *t, void *key)
{
    entry **link = &t->buckets[bucket_of(t, key, t->bucket_count)];
    while (*link != nullptr && !t->keyeq((*link)->key, key))
        link = &(*link)->next;
    return link;
}

// Best effort: when memory is short the table stays as it is, only slower.
void grow(tarvex_hashtable_s *t)
{
    if (t->bucket_count > (1 << 29))
        return;
    int bigger = t->bucket_count * 2 + 1;
    auto **buckets = static_cast<entry **>(calloc(static_cast<size_t>(bigger), sizeof(entry *)));
    if (buckets == nullptr)
        return;
    for (int i = 0; i < t->bucket_count; i++) {
        entry *e = t->buckets[i];
        while (e != nullptr) {
            entry *next = e->next;
            int index = bucket_of(t, e->key, bigger);
            e->next = buckets[index];
            buckets[index] = e;
            e = next;
        }
    }
    free(t->buckets);
    t->buckets = buckets;
    t->bucket_count = bigger;
}

} // namespace

extern "C" {

int tarvex_hashtable_init(tarvex_hashtable_t *table, int size,
                          tarvex_hashtable_hash_func_t hash_func,
                          tarvex_hashtable_keyeq_func_t keyeq_func)
{
    if (table == nullptr)
        return -1;
    *table = nullptr;
    if (hash_func == nullptr || keyeq_func == nullptr)
        return -1;
    if (size <= 0)
        size = kDefaultBuckets;
    auto *t = static_cast<tarvex_hashtable_s *>(calloc(1, sizeof(tarvex_hashtable_s)));
    if (t == nullptr)
        return -1;
    t->buckets = static_cast<entry **>(calloc(static_cast<size_t>(size), sizeof(entry *)));
    if (t->buckets == nullptr) {
        free(t);
        return -1;
    }
    t->bucket_count = size;
    t->hash = hash_func;
    t->keyeq = keyeq_func;
    *table = t;
    return 0;
}

int tarvex_hashtable_insert(tarvex_hashtable_t *table, void *key, void *datum)
{
    if (table == nullptr || *table == nullptr)
        return -1;
    tarvex_hashtable_s *t = *table;
    entry **link = find_link(t, key);
    if (*link != nullptr)
        return -1;
    auto *e = static_cast<entry *>(malloc(sizeof(entry)));
    if (e == nullptr)
        return -1;
    *e = entry{key, datum, nullptr};
    *link = e;
    t->count++;
    if (t->count > kMaxLoad * t->bucket_count)
        grow(t);
    return 0;
}

void *tarvex_hashtable_lookup(tarvex_hashtable_t *table, void *key)
{
    if (table == nullptr || *table == nullptr)
        return nullptr;
    entry *e = *find_link(*table, key);
    return e == nullptr ? nullptr : e->datum;
}

void *tarvex_hashtable_remove(tarvex_hashtable_t *table, void *key)
{
    if (table == nullptr || *table == nullptr)
        return nullptr;
    entry **link = find_link(*table, key);
    entry *e = *link;
    if (e == nullptr)
        return nullptr;
    *link = e->next;
    void *datum = e->datum;
    free(e);
    (*table)->count--;
    return datum;
}

int tarvex_hashtable_size(tarvex_hashtable_t *table)
{
    if (table == nullptr || *table == nullptr)
        return 0;
    return (*table)->count;
}

void tarvex_hashtable_foreach(tarvex_hashtable_t *table, tarvex_hashtable_visit_func_t func,
                              void *arg)
{
    if (table == nullptr || *table == nullptr || func == nullptr)
        return;
    tarvex_hashtable_s *t = *table;
    for (int i = 0; i < t->bucket_count; i++) {
        for (entry *e = t->buckets[i]; e != nullptr; e = e->next) {
            if (func(e->key, e->datum, arg) != 0)
                return;
        }
    }
}

int tarvex_hashtable_destroy_all(tarvex_hashtable_t *table,
                                 tarvex_hashtable_destructor_func_t element_free)
{
    if (table == nullptr || *table == nullptr)
        return 0;
    tarvex_hashtable_s *t = *table;
    // Detach first: a release function that looks at the table sees it gone.
    *table = nullptr;
    for (int i = 0; i < t->bucket_count; i++) {
        entry *e = t->buckets[i];
        while (e != nullptr) {
            entry *next = e->next;
            if (element_free != nullptr)
                element_free(e->datum);
            free(e);
            e = next;
        }
    }
    free(t->buckets);
    free(t);
    return 0;
}

int tarvex_hashtable_destroy(tarvex_hashtable_t *table)
{
    return tarvex_hashtable_destroy_all(table, nullptr);
}

// FNV-1a: cheap and spreads short path-like strings well.
int tarvex_hashtable_string_hash(void *string, int limit)
{
    if (limit <= 0)
        return 0;
    uint32_t hash = 2166136261u;
    if (string != nullptr) {
        for (auto *p = static_cast<const unsigned char *>(string); *p != '\0'; p++) {
            hash ^= *p;
            hash *= 16777619u;
        }
    }
    return static_cast<int>(hash % static_cast<uint32_t>(limit));
}

int tarvex_hashtable_string_keyeq(void *string1, void *string2)
{
    if (string1 == nullptr || string2 == nullptr)
        return string1 == string2;
    return strcmp(static_cast<const char *>(string1), static_cast<const char *>(string2)) == 0;
}

} // extern "C"
