/*
 * Box's answer to a store, and the file looked up when that answer is lost
 * or unusable (upload_answer.h).
 */
#include <string.h>
#include <strings.h>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "recv"
#include "get_folder_items.h"
#include "metadata.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "upload_answer.h"
#include "tarvex_box_raii.h"
#include "tarvex_result.h"

namespace {

/* Whether the file already carries a properties instance, as Box says now:
 * a new version keeps the instance of the versions before it, which a
 * listing's record does not show, and creating it again would be refused. */
tarvex_result_t tarvex_l_box_learn_metadata(tarvex_box_session_t *box,
                                            tarvex_box_path_info_t *entry,
                                            const char *parent_path)
{
    auto copy_flag = [](tarvex_box_session_t *, const char *, tarvex_box_path_info_t *info,
                        void *arg) {
        *static_cast<bool *>(arg) = info->has_metadata;
        return TARVEX_SUCCESS;
    };
    return tarvex_box_get_file_info(box, entry->id, parent_path, copy_flag,
                                    &entry->has_metadata);
}

/*
 * One stored file's record: given its MD5 property when the store has one
 * (a new version's is always written, so that no MD5 of the content before
 * it stays behind), and entered into the path cache under its folder.
 */
tarvex_result_t tarvex_l_box_take_entry(tarvex_box_session_t *box,
                                        tarvex_box_path_info_t *entry,
                                        const tarvex_box_stored_file &file)
{
    if (file.md5 != nullptr) {
        tarvex_result_t result = TARVEX_SUCCESS;
        if (file.new_version)
            result = tarvex_l_box_learn_metadata(box, entry, file.parent->name);
        if (result == TARVEX_SUCCESS)
            result = tarvex_i_box_set_metadata(box, entry, "tarvex-md5", file.md5);
        if (result != TARVEX_SUCCESS)
            return result;
        if (!tarvex_box_field_set(&entry->md5, file.md5))
            return TARVEX_BOX_MALLOC_ERROR();
    }
    if (!tarvex::Result(tarvex_box_path_cache_update(&box->cache, entry, file.parent->name)).ok())
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed cache update!");
    return TARVEX_SUCCESS;
}

/* The "entries" of Box's answer, each taken in; an answer that names no
 * file is no proof of one. */
tarvex_result_t tarvex_l_box_take_answer(tarvex_box_session_t *box, json_t *answer,
                                         const tarvex_box_stored_file &file)
{
    if (answer == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No metadata response after upload.");
    json_t *entries = json_object_get(answer, "entries");
    if (!json_is_array(entries) || json_array_size(entries) == 0)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Box's answer to the upload names no file.");
    for (size_t i = 0; i < json_array_size(entries); i++) {
        tarvex_box_path_info_t entry = {};
        tarvex_box_info_guard guard{&entry};
        tarvex::Result parsed(tarvex_box_object_info_parse(json_array_get(entries, i), &entry));
        /* An entry without an id or a name cannot be addressed or cached:
         * as unusable as one that does not parse. */
        if (!parsed.ok() || entry.id == nullptr || entry.name == nullptr)
            return TARVEX_BOX_GENERIC_ERROR("%s", "Failed info_parse!");
        tarvex_result_t result = tarvex_l_box_take_entry(box, &entry, file);
        if (result != TARVEX_SUCCESS)
            return result;
    }
    return TARVEX_SUCCESS;
}

/* The listing's record of the stored file, copied. */
struct tarvex_l_box_search {
    const tarvex_box_stored_file *file;
    tarvex_box_path_info_t *found = nullptr;
    ~tarvex_l_box_search() { tarvex_box_path_info_free(found); }
};

tarvex_result_t tarvex_l_box_match(tarvex_box_session_t *, const char *,
                                   tarvex_box_path_info_t *info, void *arg)
{
    auto *search = static_cast<tarvex_l_box_search *>(arg);
    const tarvex_box_stored_file &file = *search->file;
    /* Names are unique in a folder, and a new version carries the name
     * it was sent with. */
    bool same = info->name != nullptr && strcmp(info->name, file.name) == 0;
    if (!same || search->found != nullptr)
        return TARVEX_SUCCESS;
    search->found = tarvex_box_path_info_copy(info);
    return search->found != nullptr ? TARVEX_SUCCESS : TARVEX_BOX_MALLOC_ERROR();
}

/* The file as its folder lists it now; `*stored` when its size and SHA-1
 * are those sent (and it is then taken in like an answer's entry). */
tarvex_result_t tarvex_l_box_look_up(tarvex_box_session_t *box,
                                     const tarvex_box_stored_file &file, bool *stored)
{
    *stored = false;
    tarvex_l_box_search search{&file};
    tarvex_result_t result = tarvex_box_get_folder_items(box, file.parent->id, file.parent->name,
                                                         tarvex_l_box_match, &search);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_path_info_t *found = search.found;
    if (found == nullptr || found->type != TARVEX_BOX_FILE || found->size != file.size ||
        found->sha1 == nullptr || strcasecmp(found->sha1, file.sha1.c_str()) != 0)
        return TARVEX_SUCCESS;
    TARVEX_BOX_LOG(TARVEX_BOX_INFO, "Box's answer was lost; the file is there, whole\n");
    result = tarvex_l_box_take_entry(box, found, file);
    *stored = result == TARVEX_SUCCESS;
    return result;
}

} // namespace

tarvex_result_t tarvex_box_store_outcome(tarvex_box_session_t *box,
                                         const tarvex_box_stored_file &file,
                                         tarvex_result_t result,
                                         const tarvex_box_request_t &request)
{
    if (result == TARVEX_SUCCESS) {
        result = tarvex_l_box_take_answer(box, request.json, file);
        if (result == TARVEX_SUCCESS)
            return result;
    } else if (request.answers_lost == 0) {
        /* Box answered, and refused: nothing to look for. */
        return result;
    }
    bool stored = false;
    tarvex::Result looked(tarvex_l_box_look_up(box, file, &stored));
    if (looked.ok() && stored) {
        tarvex_error_discard(result);
        return TARVEX_SUCCESS;
    }
    return result;
}
