/*
 * Path resolution: an absolute GridFTP path to the cached record of the
 * Box item there (and of the folder holding it), walking the path one
 * component at a time through the path cache.
 *
 * A folder's listing, once made, is trusted: a name missing from a listed
 * folder is reported missing without asking Box again.  A cached entry
 * whose parent is not the folder it was reached through is stale; it is
 * dropped and the folder listed again.  So is one older than the policy's
 * time to live, and a listing that old no longer counts; with the shared
 * session cache, what the user's other sessions changed is dropped before
 * the walk begins (session_journal.h).
 */
#include <cstring>
#include <string>

#include "get_folder_items.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

namespace {

/* The entry belongs to `folder` as far as the cache knows. */
bool tarvex_l_box_is_child(const tarvex_box_path_info_t *entry,
                           const tarvex_box_path_info_t *folder)
{
    return entry->parent_id != nullptr && folder->id != nullptr &&
           strcmp(entry->parent_id, folder->id) == 0;
}

/* Lists `folder` into the cache under its full path (its cached name). */
tarvex_result_t tarvex_l_box_list(tarvex_box_session_t *box, tarvex_box_path_info_t *folder)
{
    tarvex_result_t result =
        tarvex_box_get_folder_items(box, folder->id, folder->name, nullptr, nullptr);
    if (result == TARVEX_SUCCESS)
        tarvex_box_cache_mark_listed(folder);
    return result;
}

tarvex_result_t tarvex_l_box_not_found(const char *path)
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 550, "PATH_NOT_FOUND", "%s%s%s", "GridFTP-Path: \"", path, "\""));
}

/*
 * Looks `key` up below `folder`, listing the folder when the cache cannot
 * answer.  `*entry` is the record found, or none.  Only a failed listing
 * is an error.
 */
tarvex_result_t tarvex_l_box_lookup(tarvex_box_session_t *box,
                                    tarvex_box_path_info_t *folder, const std::string &key,
                                    tarvex_box_path_info_t **entry)
{
    tarvex_box_path_info_t *found = tarvex_box_path_cache_query(&box->cache, key.c_str());
    if (found != nullptr && tarvex_l_box_is_child(found, folder) &&
        !tarvex_box_cache_expired(box, found)) {
        *entry = found;
        return TARVEX_SUCCESS;
    }
    if (found != nullptr) {
        /* Moved or replaced on Box since we cached it, or cached too long
         * ago to be trusted. */
        tarvex_box_path_cache_remove(&box->cache, key.c_str());
        folder->listed = false;
    } else if (tarvex_box_cache_listed(box, folder)) {
        *entry = nullptr;
        return TARVEX_SUCCESS;
    }

    tarvex_result_t result = tarvex_l_box_list(box, folder);
    if (result != TARVEX_SUCCESS)
        return result;
    *entry = tarvex_box_path_cache_query(&box->cache, key.c_str());
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_path_resolve(tarvex_box_session_t *box, const char *path,
                                          tarvex_box_path_info_t **entry_out,
                                          tarvex_box_path_info_t **parent_out)
{
    tarvex_result_t result = TARVEX_SUCCESS;

    /* The server hands only absolute paths; anything else is refused
     * rather than walked, as not found: no entry and no parent. */
    if (path == nullptr || path[0] != '/') {
        if (entry_out != nullptr)
            *entry_out = nullptr;
        if (parent_out != nullptr)
            *parent_out = nullptr;
        return tarvex_l_box_not_found(path != nullptr ? path : "");
    }

    tarvex_box_journal_catch_up(box);

    /* Session start listed the root, so it counts as listed for good,
     * unless listings may age or other sessions' changes unlist it. */
    tarvex_box_path_info_t *folder = tarvex_box_path_cache_query(&box->cache, "/");
    if (folder == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "The root folder is missing from the cache");
    if (tarvex_box_cache_root_always_listed(box))
        folder->listed = true;

    const std::string whole(path);
    tarvex_box_path_info_t *entry = nullptr;
    tarvex_box_path_info_t *parent = nullptr;
    size_t start = 1;
    bool walked = true;

    for (size_t slash; (slash = whole.find('/', start)) != std::string::npos;
         start = slash + 1) {
        /* An empty component ("//") names no cache key; in particular the
         * prefix of "//x" must not be taken for the root. */
        tarvex_box_path_info_t *next = nullptr;
        const std::string prefix = whole.substr(0, slash);
        if (slash == start && tarvex_box_cache_listed(box, folder)) {
            walked = false;
            break;
        }
        if (slash == start) {
            result = tarvex_l_box_list(box, folder);
        } else {
            result = tarvex_l_box_lookup(box, folder, prefix, &next);
        }
        if (result != TARVEX_SUCCESS)
            return result;
        if (next == nullptr) {
            walked = false;
            break;
        }
        folder = next;
    }

    if (walked) {
        parent = folder;
        if (start == whole.size()) {
            /* "/" or a path ending in "/": the folder named last, whatever
             * its type. */
            entry = folder;
            parent = nullptr;
        } else {
            result = tarvex_l_box_lookup(box, folder, whole, &entry);
            if (result != TARVEX_SUCCESS)
                return result;
        }
    }

    if (entry_out != nullptr)
        *entry_out = entry;
    if (parent_out != nullptr)
        *parent_out = parent;
    return entry != nullptr ? TARVEX_SUCCESS : tarvex_l_box_not_found(path);
}

} // namespace

/* The walk builds its keys as strings: an allocation failure becomes an
 * error here instead of leaving through the C callers. */
extern "C" tarvex_result_t tarvex_box_path_resolve(tarvex_box_session_t *box,
                                                  const char *path,
                                                  tarvex_box_path_info_t **entry_out,
                                                  tarvex_box_path_info_t **parent_out)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_path_resolve(box, path, entry_out, parent_out));
}
