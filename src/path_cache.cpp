/*
 * The two per-session tables: the path cache (GridFTP path -> what we last
 * learned of the Box item there) and the upload-session table (path of a
 * file being uploaded in parts -> its open Box upload session).
 *
 * Both are keyed by a string owned by the datum itself (the record's
 * `name`), because the hashtable does not copy keys.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "path_cache"
#include "object_info_parse.h"
#include "path_cache.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

namespace {

constexpr int tarvex_l_box_table_buckets = 1023;

int tarvex_l_box_table_init(tarvex_hashtable_t *table)
{
    return tarvex_hashtable_init(table, tarvex_l_box_table_buckets,
                                 tarvex_hashtable_string_hash,
                                 tarvex_hashtable_string_keyeq);
}

} // namespace

extern "C" tarvex_result_t tarvex_box_path_cache_init(tarvex_hashtable_t *cache)
{
    /* The failure is recorded but not returned: the root insert below fails
     * on a missing table anyway and reports it. */
    if (tarvex_l_box_table_init(cache) != 0)
        (void)TARVEX_BOX_MALLOC_ERROR();

    /* The Box root folder is always id "0" and has no parent. */
    tarvex_box_path_info_t root = {};
    root.name = const_cast<char *>("/");
    root.id = const_cast<char *>("0");
    root.type = TARVEX_BOX_FOLDER;
    return tarvex_box_path_cache_update(cache, &root, nullptr);
}

extern "C" tarvex_result_t tarvex_box_path_cache_update(tarvex_hashtable_t *cache,
                                                       const tarvex_box_path_info_t *info,
                                                       const char *base_path)
{
    bool below = base_path != nullptr && base_path[0] != '\0';
    /* Box never names an item "" or with a "/" in it; such a name would
     * make a key that stands for another path (the folder itself, or an
     * item deeper down), so a bad answer could replace what we know of an
     * unrelated item.  Refused like a record that cannot be copied. */
    if (below && info != nullptr && info->name != nullptr &&
        (info->name[0] == '\0' || strchr(info->name, '/') != nullptr))
        return TARVEX_BOX_GENERIC_ERROR("%s", "Box item name is not a path component.");

    tarvex_box_path_info_ptr copy(tarvex_box_path_info_copy(info));
    if (copy == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_box_cache_stamp(copy.get());

    if (below) {
        /* The root's children are "/x", everyone else's "/base/x". */
        const char *separator = strlen(base_path) == 1 ? "" : "/";
        tarvex_box_cstr_ptr key(
            tarvex_common_create_string("%s%s%s", base_path, separator, info->name));
        if (key == nullptr)
            return TARVEX_BOX_MALLOC_ERROR();
        tarvex_box_field_take(&copy->name, std::move(key));
    }

    /* What Box just told us replaces what we knew. */
    if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0) {
        tarvex_box_path_cache_remove(cache, copy->name);
        if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0)
            return TARVEX_BOX_MALLOC_ERROR();
    }
    (void)copy.release(); /* the cache's now */
    return TARVEX_SUCCESS;
}

extern "C" tarvex_box_path_info_t *tarvex_box_path_cache_query(tarvex_hashtable_t *cache,
                                                              const char *path)
{
    return static_cast<tarvex_box_path_info_t *>(
        tarvex_hashtable_lookup(cache, const_cast<char *>(path)));
}

extern "C" tarvex_result_t tarvex_box_path_cache_remove(tarvex_hashtable_t *cache,
                                                       const char *path)
{
    /* `path` may be the key of the very record released here: it is not
     * used after the release. */
    tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t *>(
        tarvex_hashtable_remove(cache, const_cast<char *>(path))));
    return TARVEX_SUCCESS;
}

extern "C" tarvex_result_t tarvex_box_upload_state_init(tarvex_hashtable_t *table)
{
    if (tarvex_l_box_table_init(table) != 0)
        return TARVEX_BOX_MALLOC_ERROR();
    return TARVEX_SUCCESS;
}

extern "C" tarvex_result_t tarvex_box_upload_state_update(tarvex_hashtable_t *table,
                                                         tarvex_box_upload_session_t *upload,
                                                         const char *)
{
    /* An upload already open for this path is kept; the caller keeps its
     * record.  The error is the same as for an allocation failure. */
    if (upload == nullptr || upload->name == nullptr ||
        tarvex_hashtable_insert(table, upload->name, upload) != 0)
        return TARVEX_BOX_MALLOC_ERROR();
    return TARVEX_SUCCESS;
}

extern "C" tarvex_box_upload_session_t *tarvex_box_upload_state_query(
    tarvex_hashtable_t *table, const char *path)
{
    return static_cast<tarvex_box_upload_session_t *>(
        tarvex_hashtable_lookup(table, const_cast<char *>(path)));
}

extern "C" tarvex_result_t tarvex_box_upload_state_remove(tarvex_hashtable_t *table,
                                                         const char *path)
{
    tarvex_box_upload_session_free(tarvex_hashtable_remove(table, const_cast<char *>(path)));
    return TARVEX_SUCCESS;
}

extern "C" void tarvex_box_upload_session_free(void *info)
{
    auto *upload = static_cast<tarvex_box_upload_session_t *>(info);
    if (upload == nullptr)
        return;
    free(upload->id);
    free(upload->name);
    json_decref(upload->part_array);
    free(upload);
}
