/*
 * A session's view of the changes its user's other sessions make, and
 * the age of what its path cache holds (session_journal.h).
 *
 * Dropping is all a session does with a change: the changed path and
 * everything cached below it go, and the folder that holds it loses its
 * listed mark, so that the next lookup there asks Box.  Entries of the
 * folder's other children stay: they are as true as before.  A session
 * that cannot know what it missed drops its whole cache (the root record
 * stays, unlisted), which costs it only listings.
 */
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "session_journal"
#include "journal_sources.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "session_journal.h"
#include "shared_store.h"
#include "tarvex_box_raii.h"

struct tarvex_box_journal_s {
    tarvex_box_cache_policy policy;
    /* Counted by every request that may change Box, and parts and ranges
     * in flight make theirs from threads of their own. */
    std::atomic<unsigned long> writes{0};
    uint64_t writer = tarvex_box_journal_random_id(); /* this session */
    /* Only with the shared cache: */
    std::unique_ptr<tarvex_box_journal_file> file;
    const uint64_t *generation = nullptr; /* the file's generation word */
    uint64_t seen = 0;                    /* the generation last caught up with */
    std::unique_ptr<tarvex_box_journal_store> store;
};

int64_t (*tarvex_box_cache_clock_us)(void) = tarvex_time_monotonic_usec;

namespace {

/* ---- the policy ---- */

struct policy_setting {
    std::mutex lock;
    tarvex_box_cache_policy policy;
};

policy_setting &the_policy()
{
    static policy_setting instance;
    return instance;
}

/* A year: longer is a typing error more likely than a wish. */
constexpr json_int_t longest_ttl = json_int_t{365} * 24 * 3600;

tarvex_result_t refuse(const char *key, const char *why)
{
    tarvex_object_t *object = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "INTERNAL_ERROR",
        "GridFTP-Error: Bad \"%s\" in collection storage policy: %s.", key, why);
    return object ? tarvex_error_put(object) : TARVEX_BOX_MALLOC_ERROR();
}

/* ---- dropping from the path cache ---- */

void free_record(void *datum)
{
    tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t *>(datum));
}

/* Everything but the root, which is made anew, unlisted. */
void drop_everything(tarvex_box_session_t *box)
{
    TARVEX_BOX_LOG(TARVEX_BOX_DEBUG, "dropping the whole path cache\n");
    tarvex_hashtable_destroy_all(&box->cache, free_record);
    tarvex_error_discard(tarvex_box_path_cache_init(&box->cache));
}

struct below {
    const std::string *path;
    std::vector<std::string> keys;
};

int collect_below(void *key, void *, void *arg)
{
    auto *b = static_cast<below *>(arg);
    const char *text = static_cast<const char *>(key);
    const std::string &path = *b->path;
    if (strncmp(text, path.c_str(), path.size()) == 0 &&
        (text[path.size()] == '\0' || text[path.size()] == '/'))
        b->keys.emplace_back(text);
    return 0;
}

/* `path` and what is cached below it go; its folder is no longer listed. */
void drop_changed(tarvex_box_session_t *box, std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path == "*" || path.empty() || path == "/" || path[0] != '/') {
        drop_everything(box);
        return;
    }
    TARVEX_BOX_LOG(TARVEX_BOX_DEBUG, "dropping %s\n", path.c_str());
    below found{&path, {}};
    tarvex_hashtable_foreach(&box->cache, collect_below, &found);
    for (const std::string &key : found.keys)
        tarvex_box_path_cache_remove(&box->cache, key.c_str());
    const size_t slash = path.rfind('/');
    const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
    if (tarvex_box_path_info_t *record = tarvex_box_path_cache_query(&box->cache, folder.c_str()))
        record->listed = false;
}

/* Drops what `entries` name, but what this session wrote itself. */
void drop_entries(tarvex_box_session_t *box, const std::vector<tarvex_box_journal_entry> &entries)
{
    for (const tarvex_box_journal_entry &entry : entries)
        if (entry.writer != box->journal->writer)
            drop_changed(box, entry.path);
}

void catch_up(tarvex_box_session_t *box)
{
    tarvex_box_journal_s *journal = box->journal;
    /* The one atomic read of a session that is current. */
    const uint64_t generation =
        std::atomic_ref<uint64_t>(*const_cast<uint64_t *>(journal->generation))
            .load(std::memory_order_acquire);
    if (generation != journal->seen) {
        std::vector<tarvex_box_journal_entry> entries;
        if (journal->file->read(journal->seen, generation, &entries))
            drop_entries(box, entries);
        else
            drop_everything(box);
        journal->seen = generation;
    }
    if (journal->store != nullptr) {
        std::vector<tarvex_box_journal_entry> entries;
        bool lost = false;
        journal->store->poll(&entries, &lost);
        if (lost)
            drop_everything(box);
        else
            drop_entries(box, entries);
    }
}

/* Into the file first: the sessions of this host see it at once. */
void publish(tarvex_box_session_t *box, const char *path, const char *other_path) noexcept
{
    tarvex_box_journal_s *journal = box->journal;
    try {
        std::vector<std::string> paths;
        for (const char *p : {path, other_path})
            if (p != nullptr)
                paths.emplace_back(p);
        for (const std::string &p : paths)
            journal->file->append(journal->writer, p);
        if (journal->store != nullptr)
            journal->store->publish(journal->writer, paths);
    } catch (...) {
        /* Out of memory: the other sessions may miss this change, as they
         * would one made outside this server. */
    }
}

bool shared(const tarvex_box_session_t *box)
{
    return box != nullptr && box->journal != nullptr && box->journal->policy.shared;
}

int64_t ttl_seconds(const tarvex_box_session_t *box)
{
    return box != nullptr && box->journal != nullptr ? box->journal->policy.ttl_seconds : -1;
}

bool older_than_ttl(const tarvex_box_session_t *box, int64_t stamp_us)
{
    const int64_t ttl = ttl_seconds(box);
    return ttl >= 0 && tarvex_box_cache_clock_us() - stamp_us > ttl * 1000000;
}

} // namespace

/* ---- the policy ---- */

void tarvex_box_cache_policy_set(const tarvex_box_cache_policy &policy)
{
    policy_setting &setting = the_policy();
    std::lock_guard<std::mutex> guard(setting.lock);
    setting.policy = policy;
}

tarvex_box_cache_policy tarvex_box_cache_policy_get()
{
    policy_setting &setting = the_policy();
    std::lock_guard<std::mutex> guard(setting.lock);
    return setting.policy;
}

/* Absent (or null) keys are the defaults.  A value that is there but
 * wrong stops the log-in: guessing would either hide other sessions'
 * changes or cost listings nobody asked for. */
tarvex_result_t tarvex_box_cache_policy_parse(json_t *document)
{
    tarvex_box_cache_policy policy;
    json_t *mode = json_object_get(document, "session_cache");
    if (mode != nullptr && !json_is_null(mode)) {
        const char *text = json_string_value(mode);
        if (text != nullptr && strcmp(text, "shared") == 0)
            policy.shared = true;
        else if (text == nullptr || strcmp(text, "private") != 0)
            return refuse("session_cache", "it must be \"private\" or \"shared\"");
    }
    json_t *ttl = json_object_get(document, "cache_ttl_seconds");
    if (ttl != nullptr && !json_is_null(ttl)) {
        if (!json_is_integer(ttl) || json_integer_value(ttl) < 0 ||
            json_integer_value(ttl) > longest_ttl)
            return refuse("cache_ttl_seconds",
                          "it must be a whole number of seconds from 0 to 31536000");
        policy.ttl_seconds = json_integer_value(ttl);
    }
    tarvex_box_cache_policy_set(policy);
    return TARVEX_SUCCESS;
}

/* ---- a session's journal ---- */

tarvex_result_t tarvex_box_journal_open(tarvex_box_session_t *box)
{
    return tarvex_box_guarded([&] {
        auto journal = std::make_unique<tarvex_box_journal_s>();
        journal->policy = tarvex_box_cache_policy_get();
        if (journal->policy.shared) {
            const std::string name = std::string(box->user_id) + "j";
            journal->file = std::make_unique<tarvex_box_journal_file>(name.c_str());
            journal->generation = journal->file->generation_word();
            journal->seen = journal->file->generation();
            if (std::shared_ptr<tarvex_box_store_s> store = tarvex_box_store_open()) {
                journal->store = std::make_unique<tarvex_box_journal_store>(
                    std::move(store), box->user_id, journal->file->host());
                journal->store->start();
            }
            TARVEX_BOX_LOG_AS(TARVEX_BOX_DEBUG, "tarvex_box_journal_open",
                              "shared session cache: journal %s%s\n",
                              journal->file->is_shared() ? "file" : "in private memory",
                              journal->store != nullptr ? " and store" : "");
        }
        box->journal = journal.release();
        return TARVEX_SUCCESS;
    });
}

void tarvex_box_journal_close(tarvex_box_session_t *box)
{
    delete box->journal;
    box->journal = nullptr;
}

void tarvex_box_journal_catch_up(tarvex_box_session_t *box)
{
    if (!shared(box))
        return;
    try {
        catch_up(box);
    } catch (...) {
        /* Out of memory while reading what changed: forget everything
         * rather than keep what may be stale. */
        drop_everything(box);
        box->journal->seen = box->journal->file->generation();
    }
}

void tarvex_box_journal_note_write(tarvex_box_session_t *box)
{
    if (box != nullptr && box->journal != nullptr)
        box->journal->writes.fetch_add(1, std::memory_order_relaxed);
}

unsigned long tarvex_box_journal_writes(const tarvex_box_session_t *box)
{
    return box != nullptr && box->journal != nullptr
               ? box->journal->writes.load(std::memory_order_relaxed)
               : 0;
}

void tarvex_box_journal_publish(tarvex_box_session_t *box, unsigned long writes_before,
                                const char *path, const char *other_path)
{
    if (!shared(box) || box->journal->writes.load(std::memory_order_relaxed) == writes_before)
        return;
    publish(box, path, other_path);
}

bool tarvex_box_cache_shared(const tarvex_box_session_t *box)
{
    return shared(box);
}

void tarvex_box_journal_publish_path(tarvex_box_session_t *box, const char *path)
{
    if (shared(box))
        publish(box, path, nullptr);
}

/* ---- age of cached records ---- */

void tarvex_box_cache_stamp(tarvex_box_path_info_t *info)
{
    info->cached_at = tarvex_box_cache_clock_us();
}

void tarvex_box_cache_mark_listed(tarvex_box_path_info_t *folder)
{
    folder->listed = true;
    folder->listed_at = tarvex_box_cache_clock_us();
}

bool tarvex_box_cache_expired(const tarvex_box_session_t *box, const tarvex_box_path_info_t *info)
{
    return older_than_ttl(box, info->cached_at);
}

bool tarvex_box_cache_listed(const tarvex_box_session_t *box, const tarvex_box_path_info_t *folder)
{
    return folder->listed && !older_than_ttl(box, folder->listed_at);
}

bool tarvex_box_cache_root_always_listed(const tarvex_box_session_t *box)
{
    return !shared(box) && ttl_seconds(box) < 0;
}
