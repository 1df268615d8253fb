/*
 * FTP commands other than transfers and stat: make folder (MKD), delete
 * (DELE, RMD, SITE RDEL), rename and move (RNTO) and checksums (CKSM).
 *
 * The dispatcher renews the token and picks the handler; each handler
 * answers the framework exactly once, on every path, and the dispatcher
 * never answers for it.  Every Box request goes through the shared attempt
 * loop (request.cpp) with the attempt budget its command states.
 */
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "command"
#include "command.h"
#include "config.h"
#include "digest_pipe.h"
#include "error.h"
#include "get_folder_items.h"
#include "metadata.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "request.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "tarvex_result.h"
#include "token.h"

namespace {

constexpr const char *tarvex_l_box_item_fields =
    "type,id,name,parent,size,content_modified_at,sha1";

/* ---- shared by the handlers ---- */

tarvex_result_t tarvex_l_box_ftp_error(int code, const char *error_class,
                                       const char *path)
{
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, code, error_class, "GridFTP-Path: %s", path);
    return error ? tarvex_error_put(error) : TARVEX_BOX_MALLOC_ERROR();
}

/* Ends the error chain of `result` with a box error of one reply line,
 * `key: "text"`, after any cause of its own.  Out of memory the result
 * goes without it. */
tarvex_result_t tarvex_l_box_add_line(tarvex_result_t result, const char *key,
                                      const char *text)
{
    tarvex_dsi_rest_key_value_t pairs[1] = {{key, text}};
    tarvex_dsi_rest_key_array_t info = {1, pairs};
    return tarvex_box_error_append(result, &info);
}

/* A path split at its last "/": the folder's path and the last name.  For
 * "/a" the folder's path is "" (the root, as the parent's messages have
 * always shown it). */
struct tarvex_l_box_split_path {
    std::string folder;
    std::string name;
    bool valid = false;

    explicit tarvex_l_box_split_path(const char *path)
    {
        const char *slash = path != nullptr ? strrchr(path, '/') : nullptr;
        if (slash == nullptr)
            return;
        folder.assign(path, slash - path);
        name = slash + 1;
        valid = true;
    }
};

/* Resolves a path whose last name may not exist yet.  Only the two records
 * count: a missing entry is the expected case, and a failed listing leaves
 * both absent, which the callers report as a missing folder. */
void tarvex_l_box_resolve_target(tarvex_box_session_t *box, const char *path,
                                 tarvex_box_path_info_t **entry,
                                 tarvex_box_path_info_t **parent)
{
    *entry = nullptr;
    *parent = nullptr;
    tarvex_error_discard(tarvex_box_path_resolve(box, path, entry, parent));
}

bool tarvex_l_box_is_folder(const tarvex_box_path_info_t *info)
{
    return info != nullptr && info->type == TARVEX_BOX_FOLDER;
}

bool tarvex_l_box_is_root(const tarvex_box_path_info_t *info)
{
    return info->parent_id == nullptr && info->id != nullptr && strcmp(info->id, "0") == 0;
}

/* {"name": name, "parent": {"id": parent_id}}.  jansson refuses text that
 * is not UTF-8, which Box would refuse as an invalid name anyway. */
tarvex_result_t tarvex_l_box_name_body(const std::string &name, const char *parent_id,
                                       tarvex_box_json_ptr *body)
{
    body->reset(json_pack("{s:s, s:{s:s}}", "name", name.c_str(), "parent", "id", parent_id));
    if (*body == nullptr)
        return tarvex_l_box_ftp_error(553, "INVALID_PATH_NAME", "<Invalid Name>");
    return TARVEX_SUCCESS;
}

/* Enters the item a successful MKD or RNTO answered with into the cache
 * under its folder's path. */
tarvex_result_t tarvex_l_box_cache_answer(tarvex_box_session_t *box, json_t *answer,
                                          const char *folder_path)
{
    if (answer == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_box_path_info_t entry = {};
    tarvex_box_info_guard guard{&entry};
    if (!tarvex::Result(tarvex_box_object_info_parse(answer, &entry)).ok())
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed info_parse!");
    if (!tarvex::Result(tarvex_box_path_cache_update(&box->cache, &entry, folder_path)).ok())
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed cache update!");
    return TARVEX_SUCCESS;
}

/* A POST or PUT of a name body that answers the item: two attempts, paced
 * by the API pacing state. */
tarvex_result_t tarvex_l_box_send_name(tarvex_box_session_t *box, const char *caller,
                                       const char *method, const char *url,
                                       json_t *body, tarvex_box_request_t *request)
{
    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", tarvex_l_box_item_fields}};
    tarvex_dsi_rest_key_array_t query = {1, query_pairs};
    *request = {
        .method = method,
        .url = url,
        .query = &query,
        .json_body = body,
        .attempts = 2,
        .retry = &box->user_retry,
        .caller = caller,
    };
    return tarvex_box_request(box, request);
}

/* ---- make folder ---- */

/*
 * Box answered 409 to a new folder: the name was taken after our lookup,
 * typically by another session of a client that makes the same folders
 * over several connections at once.  With the shared session cache (made
 * for such clients) the folder's parent is listed again, and if a folder
 * has the name now, the MKD has what it asked for; the private cache
 * reports the refusal, as it always has.
 */
tarvex_result_t tarvex_l_box_made_meanwhile(tarvex_box_session_t *box, const char *pathname,
                                            tarvex_box_path_info_t *parent_info,
                                            tarvex_result_t refusal)
{
    tarvex::Result refused(refusal);
    tarvex_box_path_info_t *path_info = nullptr;
    if (tarvex::Result(tarvex_box_get_folder_items(box, parent_info->id, parent_info->name,
                                                   nullptr, nullptr))
            .ok()) {
        tarvex_box_cache_mark_listed(parent_info);
        tarvex_l_box_resolve_target(box, pathname, &path_info, &parent_info);
    }
    if (!tarvex_l_box_is_folder(path_info))
        return refused.release();
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_mkdir(tarvex_box_session_t *box, const char *pathname)
{
    tarvex_l_box_split_path split(pathname);
    if (!split.valid)
        return tarvex_box_path_resolve(box, pathname, nullptr, nullptr);

    tarvex_box_path_info_t *path_info, *parent_info;
    tarvex_l_box_resolve_target(box, pathname, &path_info, &parent_info);
    if (!tarvex_l_box_is_folder(parent_info))
        return tarvex_l_box_ftp_error(553, "NOT_A_DIRECTORY", split.folder.c_str());
    if (path_info != nullptr) {
        /* Making a folder that is there already asks Box nothing. */
        if (path_info->type == TARVEX_BOX_FOLDER)
            return TARVEX_SUCCESS;
        return tarvex_l_box_ftp_error(553, "NOT_A_DIRECTORY", pathname);
    }

    tarvex_box_json_ptr body;
    tarvex_result_t result = tarvex_l_box_name_body(split.name, parent_info->id, &body);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_cstr_ptr url(
        tarvex_common_create_string("%s/2.0/folders", tarvex_box_api_base()));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_box_request_t request = {};
    tarvex_box_request_guard guard{&request};
    result = tarvex_l_box_send_name(box, "tarvex_i_box_mkdir", "POST", url.get(),
                                    body.get(), &request);
    if (result != TARVEX_SUCCESS && request.response.response_code == 409 &&
        tarvex_box_cache_shared(box))
        return tarvex_l_box_made_meanwhile(box, pathname, parent_info, result);
    if (result != TARVEX_SUCCESS)
        return result;
    /* The new folder is cached so that the next command on it needs no
     * listing.  If this step fails the folder exists on Box all the same. */
    return tarvex_l_box_cache_answer(box, request.json, parent_info->name);
}

/* ---- delete ---- */

/* The body of a DELETE answer, kept only for the code of a refusal: the
 * first few KiB of the last attempt's. */
constexpr size_t tarvex_l_box_kept_body = 4096;

tarvex_result_t tarvex_l_box_keep_body(void *arg, void *buffer, size_t length)
{
    auto *body = static_cast<std::string *>(arg);
    size_t room = tarvex_l_box_kept_body - std::min(body->size(), tarvex_l_box_kept_body);
    body->append(static_cast<const char *>(buffer), std::min(length, room));
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_forget_body(tarvex_box_request_t *, void *arg)
{
    static_cast<std::string *>(arg)->clear();
    return TARVEX_SUCCESS;
}

/* A refusal judged by its status alone says nothing of its reason when
 * that status is 400 ("Bad BOX request"): Box's code from the body
 * ("folder_not_empty" for RMD of a folder with items) follows on a line of
 * its own. */
tarvex_result_t tarvex_l_box_with_refusal_code(tarvex_result_t result, int status,
                                               const std::string &body)
{
    if (result == TARVEX_SUCCESS || status != 400)
        return result;
    tarvex_box_json_ptr doc(json_loadb(body.data(), body.size(), 0, nullptr));
    const char *code = json_string_value(json_object_get(doc.get(), "code"));
    if (code == nullptr || code[0] == '\0')
        return result;
    return tarvex_l_box_add_line(result, "Box-Details", code);
}

/* Whether `type` may delete an item of this kind: the answer's error when
 * not, else success with the URL kind and the query. */
tarvex_result_t tarvex_l_box_delete_kind(const tarvex_box_path_info_t *path_info, int type,
                                         const char **kind, bool *recursive)
{
    *recursive = false;
    switch (type) {
    case TARVEX_GFS_CMD_DELE:
        /* Anything that is not a file (an unknown kind too) is refused as
         * a folder, as clients have always been told. */
        if (path_info->type != TARVEX_BOX_FILE)
            return TARVEX_BOX_GENERIC_ERROR("%s", "Path is a folder.");
        *kind = "files";
        return TARVEX_SUCCESS;
    case TARVEX_GFS_CMD_SITE_RDEL:
        *recursive = true;
        [[fallthrough]];
    case TARVEX_GFS_CMD_RMD:
        if (path_info->type != TARVEX_BOX_FOLDER)
            return TARVEX_BOX_GENERIC_ERROR("%s", "Path is a file.");
        *kind = "folders";
        return TARVEX_SUCCESS;
    default:
        /* Reported as the out-of-memory error although nothing failed to
         * allocate: callers have always seen this error for a command that
         * deletes nothing. */
        return TARVEX_BOX_MALLOC_ERROR();
    }
}

tarvex_result_t tarvex_l_box_delete_object(tarvex_box_session_t *box,
                                           tarvex_box_path_info_t *path_info, int type)
{
    const char *kind = nullptr;
    bool recursive = false;
    tarvex_result_t result = tarvex_l_box_delete_kind(path_info, type, &kind, &recursive);
    if (result != TARVEX_SUCCESS)
        return result;
    /* Box refuses to delete the root folder; asking would also drop the
     * root from the cache, which every resolution starts from. */
    if (tarvex_l_box_is_root(path_info))
        return tarvex_l_box_ftp_error(550, "PERMISSION_DENIED", "/");

    tarvex_box_cstr_ptr url(tarvex_common_create_string("%s/2.0/%s/%s", tarvex_box_api_base(),
                                                        kind, path_info->id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_dsi_rest_key_value_t query_pairs[] = {{"recursive", "true"}};
    tarvex_dsi_rest_key_array_t query = {1, query_pairs};

    std::string body;
    tarvex_box_request_t request = {
        .method = "DELETE",
        .url = url.get(),
        .query = recursive ? &query : nullptr,
        .read_callback = tarvex_l_box_keep_body,
        .read_callback_arg = &body,
        .before_attempt = tarvex_l_box_forget_body,
        .before_attempt_arg = &body,
        .attempts = 2,
        .retry = &box->user_retry,
        /* A refusal is judged by its status alone and never tried again,
         * even a 429 or a 5xx that other commands retry: a DELETE that Box
         * may have carried out is not repeated blindly.  Transport failures
         * are retried once. */
        .translate_without_body = true,
        .refusal_is_final = true,
        .caller = "tarvex_i_box_delete_object",
    };
    tarvex_box_request_guard guard{&request};
    result = tarvex_box_request(box, &request);
    result = tarvex_l_box_with_refusal_code(result, request.response.response_code, body);

    /* The entry goes so that the next use of the path asks Box again,
     * unless Box said plainly that it kept the item (a 4xx other than "not
     * found": a folder not empty, no permission, too many requests).  Its
     * folder counts as listed, and the root always does, so a dropped
     * entry is not looked for again: after such a refusal the item and
     * everything below it would read as gone for the rest of the log-in. */
    int status = request.response.response_code;
    bool kept = result != TARVEX_SUCCESS && status >= 400 && status < 500 && status != 404 &&
                status != 410;
    if (!kept)
        tarvex_box_path_cache_remove(&box->cache, path_info->name);
    return result;
}

/* ---- rename ---- */

/* Moving a folder into its own tree would make it its own ancestor. */
bool tarvex_l_box_below(const char *path, const char *folder)
{
    size_t length = strlen(folder);
    return strncmp(path, folder, length) == 0 && path[length] == '/';
}

/* One PUT that gives the item `id` (a folder or a file) the name `name`
 * in the folder `parent_id`, whose cached path is `parent_key`; the
 * answer is cached there. */
tarvex_result_t tarvex_l_box_move(tarvex_box_session_t *box, bool folder, const std::string &id,
                                  const std::string &name, const std::string &parent_id,
                                  const std::string &parent_key)
{
    tarvex_box_json_ptr body;
    tarvex_result_t result = tarvex_l_box_name_body(name, parent_id.c_str(), &body);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/2.0/%s/%s", tarvex_box_api_base(), folder ? "folders" : "files", id.c_str()));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_box_request_t request = {};
    tarvex_box_request_guard guard{&request};
    result = tarvex_l_box_send_name(box, "tarvex_i_box_rename", "PUT", url.get(), body.get(),
                                    &request);
    if (result == TARVEX_SUCCESS)
        result = tarvex_l_box_cache_answer(box, request.json, parent_key.c_str());
    return result;
}

/* The cache key of `name` in the folder cached as `folder_key`. */
std::string tarvex_l_box_key_in(const std::string &folder_key, const std::string &name)
{
    return folder_key.size() == 1 ? folder_key + name : folder_key + "/" + name;
}

/* A free name for a file moved aside: its own name with a random end, or
 * the end alone where that would pass Box's 255 characters. */
tarvex_result_t tarvex_l_box_aside_name(const std::string &name, std::string *aside)
{
    tarvex_uuid_t uuid;
    if (tarvex_uuid_create(&uuid) != 0)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No random name for the replaced file.");
    std::string end = ".tarvex-replaced-" + std::string(uuid.text, 8);
    *aside = name.size() + end.size() <= 255 ? name + end : end.substr(1);
    return TARVEX_SUCCESS;
}

/*
 * RNTO onto an existing file, with the policy's "rename_replaces": the old
 * file is moved aside under a free name, the source takes the name, and
 * only then is the old file deleted.  Both files stay on Box until the new
 * one has the name, so a failure at any step loses neither:
 *  - moving the old file aside fails: nothing has changed;
 *  - moving the source fails: the old file gets its name back, and if that
 *    fails too the error names where it is;
 *  - deleting the old file fails: the rename is done, and the old file
 *    stays under its aside name (the error log names it).
 * Deleting first would leave the name empty, and the old bytes only in
 * Box's trash, whenever the source's move then failed.
 */
tarvex_result_t tarvex_l_box_rename_over(tarvex_box_session_t *box, const std::string &from_id,
                                         const std::string &from_key,
                                         const tarvex_box_path_info_t *target,
                                         const tarvex_box_path_info_t *parent,
                                         const std::string &name)
{
    const std::string target_id = target->id;
    const std::string target_key = target->name;
    const std::string parent_id = parent->id;
    const std::string parent_key = parent->name;
    if (target_id == from_id)
        return TARVEX_SUCCESS; /* a file onto itself: nothing to do */

    std::string aside;
    tarvex_result_t result = tarvex_l_box_aside_name(name, &aside);
    if (result == TARVEX_SUCCESS)
        result = tarvex_l_box_move(box, false, target_id, aside, parent_id, parent_key);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_path_cache_remove(&box->cache, target_key.c_str());
    const std::string aside_key = tarvex_l_box_key_in(parent_key, aside);

    result = tarvex_l_box_move(box, false, from_id, name, parent_id, parent_key);
    if (result != TARVEX_SUCCESS) {
        if (tarvex::Result(tarvex_l_box_move(box, false, target_id, name, parent_id, parent_key))
                .ok()) {
            tarvex_box_path_cache_remove(&box->cache, aside_key.c_str());
            return result;
        }
        std::string where = "The file to be replaced is kept as " + aside_key + ".";
        return tarvex_l_box_add_line(result, "Box-Details", where.c_str());
    }
    tarvex_box_path_cache_remove(&box->cache, from_key.c_str());

    tarvex_box_path_info_t old_file = {};
    old_file.name = const_cast<char *>(aside_key.c_str());
    old_file.id = const_cast<char *>(target_id.c_str());
    old_file.type = TARVEX_BOX_FILE;
    if (!tarvex::Result(tarvex_i_box_delete_object(box, &old_file, TARVEX_GFS_CMD_DELE)).ok())
        TARVEX_BOX_LOG(TARVEX_BOX_ERROR, "the replaced file stays as %s\n", aside_key.c_str());
    return TARVEX_SUCCESS;
}

/* Whether the policy lets RNTO replace `target`: a file only, and only by
 * a file. */
bool tarvex_l_box_may_replace(const tarvex_box_path_info_t *target, bool from_folder)
{
    return tarvex_i_box_rename_replaces && !from_folder && target->type == TARVEX_BOX_FILE;
}

tarvex_result_t tarvex_l_box_rename(tarvex_box_session_t *box, const char *from_pathname,
                                    const char *pathname)
{
    tarvex_box_path_info_t *from_info = nullptr, *from_parent = nullptr;
    tarvex_result_t result = tarvex_box_path_resolve(box, from_pathname, &from_info,
                                                     &from_parent);
    if (result != TARVEX_SUCCESS)
        return result;
    if (tarvex_l_box_is_root(from_info))
        return tarvex_l_box_ftp_error(550, "PERMISSION_DENIED", "/");

    /* Resolving the target may list its folder and so replace the source's
     * cached record (when both share a folder): what the request needs of
     * the source is copied first. */
    const std::string from_id = from_info->id;
    const std::string from_key = from_info->name;
    const bool from_folder = from_info->type == TARVEX_BOX_FOLDER;

    tarvex_l_box_split_path split(pathname);
    if (!split.valid)
        return tarvex_box_path_resolve(box, pathname, nullptr, nullptr);
    tarvex_box_path_info_t *path_info, *parent_info;
    tarvex_l_box_resolve_target(box, pathname, &path_info, &parent_info);
    if (!tarvex_l_box_is_folder(parent_info))
        return tarvex_l_box_ftp_error(553, "NOT_A_DIRECTORY", split.folder.c_str());
    if (path_info != nullptr) {
        /* Without the policy's word an existing target is never replaced,
         * not even by itself. */
        if (!tarvex_l_box_may_replace(path_info, from_folder))
            return tarvex_l_box_ftp_error(553, "PATH_EXISTS", pathname);
        return tarvex_l_box_rename_over(box, from_id, from_key, path_info, parent_info,
                                        split.name);
    }
    /* Checked last, so that a target that exists or has no folder is
     * answered as such: only a move that would otherwise be sent is
     * refused for going into the folder's own subtree. */
    if (from_folder && tarvex_l_box_below(pathname, from_key.c_str()))
        return tarvex_l_box_ftp_error(553, "INVALID_PATH_NAME", pathname);

    result = tarvex_l_box_move(box, from_folder, from_id, split.name, parent_info->id,
                               parent_info->name);
    /* Entries cached below a moved folder keep their old paths; resolution
     * no longer reaches them through the old folder. */
    if (result == TARVEX_SUCCESS)
        tarvex_box_path_cache_remove(&box->cache, from_key.c_str());
    return result;
}

/* ---- checksum ---- */

enum tarvex_l_box_cksm_alg { TARVEX_L_BOX_CKSM_NONE, TARVEX_L_BOX_CKSM_MD5,
                             TARVEX_L_BOX_CKSM_SHA1 };

/* The reply text: 40 hex digits of SHA-1 and a terminator. */
constexpr size_t tarvex_l_box_cksum_size = 41;

void tarvex_l_box_reply_with(char *cksumstr, const char *known)
{
    snprintf(cksumstr, tarvex_l_box_cksum_size, "%s", known);
}

void tarvex_l_box_hex(const unsigned char *digest, size_t length, char *out)
{
    for (size_t i = 0; i < length; i++)
        snprintf(out + 2 * i, 3, "%02x", digest[i]);
}

int tarvex_l_box_now()
{
    return static_cast<int>(time(nullptr));
}

/* Sends the bytes hashed so far as a progress reply when one is due. */
void tarvex_l_box_cksm_progress(tarvex_i_box_cksm_state_t *state)
{
    if (state->response_due == 0 || state->response_due > tarvex_l_box_now())
        return;
    char text[128];
    snprintf(text, sizeof text, "%ld", static_cast<long>(state->total_bytes));
    tarvex_gridftp_server_intermediate_command(state->op, TARVEX_SUCCESS, text);
    state->response_due = tarvex_l_box_now() + state->response_freq;
}

/* What the data request's callbacks share. */
struct tarvex_l_box_cksm_download {
    tarvex_i_box_cksm_state_t *state;
    tarvex_box_digest_pipe *pipe;
    tarvex_box_request_t *request;
};

/* Does what tarvex_i_box_cksm_cb does, with the digests on the pipe's
 * thread.  Only the file's bytes are hashed: the page of an error answer
 * is not (its status fails the attempt anyway). */
tarvex_result_t tarvex_l_box_cksm_body(void *arg, void *buffer, size_t length)
{
    auto *download = static_cast<tarvex_l_box_cksm_download *>(arg);
    if (download->request->response.response_code >= 300)
        return TARVEX_SUCCESS;
    download->state->total_bytes += static_cast<tarvex_off_t>(length);
    tarvex_l_box_cksm_progress(download->state);
    download->pipe->feed(buffer, length);
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_cksm_before_attempt(tarvex_box_request_t *, void *arg)
{
    tarvex_l_box_cksm_progress(static_cast<tarvex_l_box_cksm_download *>(arg)->state);
    return TARVEX_SUCCESS;
}

/* The "Range" value of a checksum range; empty for the whole file. */
std::string tarvex_l_box_range(tarvex_off_t offset, tarvex_off_t length)
{
    char text[64] = "";
    if (length != -1)
        snprintf(text, sizeof text, "bytes=%ld-%ld", static_cast<long>(offset),
                 static_cast<long>(offset + length - 1));
    else if (offset != 0)
        snprintf(text, sizeof text, "bytes=%ld-", static_cast<long>(offset));
    return text;
}

/*
 * Downloads one range into the digests: the content request, whose 302
 * names where the bytes are, then the data request there.  The two share
 * one budget of two attempts, so a retried content request leaves the
 * data request a single one.  A retried data request goes on feeding the
 * same digests: after a failure mid-body the sums are of more bytes than
 * the range (the SHA-1 no longer matches Box's, so nothing is recorded).
 */
tarvex_result_t tarvex_l_box_cksm_range(tarvex_box_session_t *box,
                                        const tarvex_box_path_info_t *path_info,
                                        tarvex_off_t offset, tarvex_off_t length,
                                        tarvex_i_box_cksm_state_t *state,
                                        tarvex_box_digest_pipe *pipe)
{
    std::string range = tarvex_l_box_range(offset, length);
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/2.0/files/%s/content", tarvex_box_api_base(), path_info->id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_dsi_rest_key_value_t headers[] = {{"Range", range.c_str()}};
    size_t header_count = range.empty() ? 0 : 1;

    static const char *const location_header[] = {"Location"};
    tarvex_box_request_t content = {
        .method = "GET",
        .url = url.get(),
        .headers = headers,
        .header_count = header_count,
        .wanted_headers = location_header,
        .wanted_header_count = 1,
        .attempts = 2,
        .retry = &box->user_retry,
        /* The redirect is followed here, not by the client: its "Location"
         * is the answer wanted. */
        .expected_status = 302,
        .caller = "tarvex_i_box_cksm",
    };
    tarvex_box_request_guard content_guard{&content};
    tarvex_result_t result = tarvex_box_request(box, &content);
    if (result != TARVEX_SUCCESS)
        return result;
    const char *location = tarvex_box_request_header(&content, "Location");
    if (location == nullptr || location[0] == '\0')
        return TARVEX_BOX_GENERIC_ERROR("%s", "Box named no download location.");

    static const int whole_file[] = {200}, part_of_it[] = {206};
    tarvex_l_box_cksm_download download = {state, pipe, nullptr};
    tarvex_box_request_t data = {
        .method = "GET",
        .url = location,
        .headers = headers,
        .header_count = header_count,
        .read_callback = tarvex_l_box_cksm_body,
        .read_callback_arg = &download,
        .before_attempt = tarvex_l_box_cksm_before_attempt,
        .before_attempt_arg = &download,
        .attempts = 3 - content.attempts_made,
        .retry = &box->user_retry,
        .translate_without_body = true,
        /* Only the bytes asked for make a sum: the whole file (200), or the
         * range (206).  The link is signed: it goes without the token. */
        .success_statuses = range.empty() ? whole_file : part_of_it,
        .success_status_count = 1,
        .signed_url = true,
        .caller = "tarvex_i_box_cksm",
    };
    tarvex_box_request_guard data_guard{&data};
    download.request = &data;
    return tarvex_box_request(box, &data);
}

/* The whole-file MD5, when Box or the record already knows it.  The cached
 * record may be replaced by the fetch, so `*path_info` is resolved anew. */
tarvex_result_t tarvex_l_box_known_md5(tarvex_box_session_t *box, const char *pathname,
                                       tarvex_box_path_info_t **path_info,
                                       const tarvex_box_path_info_t *parent)
{
    if ((*path_info)->md5 != nullptr || parent == nullptr)
        return TARVEX_SUCCESS;
    /* The file's record with its metadata properties: the MD5 may have been
     * stored by another session.  If the fetch fails the MD5 is computed. */
    std::string file_id = (*path_info)->id;
    tarvex_error_discard(
        tarvex_box_get_file_info(box, file_id.c_str(), parent->name, nullptr, nullptr));
    return tarvex_box_path_resolve(box, pathname, path_info, nullptr);
}

tarvex_result_t tarvex_l_box_cksm(tarvex_gfs_operation_t op,
                                  const tarvex_gfs_command_info_t *cmd_info,
                                  tarvex_box_session_t *box, char *cksumstr)
{
    const char *name = cmd_info->cksm_alg != nullptr ? cmd_info->cksm_alg : "";
    tarvex_l_box_cksm_alg alg = strcasecmp(name, "MD5") == 0    ? TARVEX_L_BOX_CKSM_MD5
                                : strcasecmp(name, "SHA1") == 0 ? TARVEX_L_BOX_CKSM_SHA1
                                                                : TARVEX_L_BOX_CKSM_NONE;
    if (alg == TARVEX_L_BOX_CKSM_NONE) {
        /* An unknown algorithm is answered with success and no checksum:
         * the refusal is built and then dropped, as clients have always
         * seen it.  The server tells the client the algorithm is not
         * supported. */
        tarvex_object_t *refusal = tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 500, "NOT_IMPLEMETED", "GridFTP-Feature: %s", name);
        tarvex_object_free(refusal);
        return TARVEX_SUCCESS;
    }

    tarvex_box_path_info_t *path_info = nullptr, *parent = nullptr;
    tarvex_result_t result = tarvex_box_path_resolve(box, cmd_info->pathname, &path_info,
                                                     &parent);
    if (result != TARVEX_SUCCESS)
        return result;

    bool whole_file = cmd_info->cksm_offset == 0 && cmd_info->cksm_length == -1;
    if (whole_file && alg == TARVEX_L_BOX_CKSM_MD5) {
        result = tarvex_l_box_known_md5(box, cmd_info->pathname, &path_info, parent);
        if (result != TARVEX_SUCCESS)
            return result;
        if (path_info->md5 != nullptr) {
            tarvex_l_box_reply_with(cksumstr, path_info->md5);
            return TARVEX_SUCCESS;
        }
    }
    if (whole_file && alg == TARVEX_L_BOX_CKSM_SHA1 && path_info->sha1 != nullptr) {
        tarvex_l_box_reply_with(cksumstr, path_info->sha1);
        return TARVEX_SUCCESS;
    }

    /* One pass over the bytes yields both digests: the MD5 to answer with,
     * and the SHA-1 that proves (against Box's) that the whole current file
     * was read. */
    tarvex_i_box_cksm_state_t state = {};
    state.op = op;
    tarvex_gridftp_server_get_update_interval(op, &state.response_freq);
    if (state.response_freq > 0)
        state.response_due = tarvex_l_box_now() + state.response_freq;
    MD5_Init(&state.md5_ctx);
    SHA1_Init(&state.sha_ctx);
    tarvex_box_digest_pipe pipe(&state.md5_ctx, &state.sha_ctx);

    /* With an explicit length the range is downloaded and hashed again and
     * again into the same digests until a request fails: clients have
     * always seen a CKSM with a length end only that way (or by ABOR).  A
     * length of 0 hashes no bytes and asks Box nothing.  ABOR (or the
     * client leaving) cancels the operation: that ends the repetition here,
     * even when a small range downloads before any request notices. */
    while (cmd_info->cksm_length != 0) {
        if (tarvex_gridftp_server_operation_cancelled(op)) {
            tarvex_object_t *stopped = tarvex_gfs_ftp_response_error_construct(
                nullptr, nullptr, 426, "CANCELLED", "GridFTP-Error: the checksum was cancelled.");
            return stopped ? tarvex_error_put(stopped) : TARVEX_BOX_MALLOC_ERROR();
        }
        result = tarvex_l_box_cksm_range(box, path_info, cmd_info->cksm_offset,
                                         cmd_info->cksm_length, &state, &pipe);
        if (result != TARVEX_SUCCESS)
            return result;
        if (cmd_info->cksm_length < 0)
            break;
    }

    pipe.finish();
    unsigned char md5[MD5_DIGEST_LENGTH], sha1[SHA_DIGEST_LENGTH];
    char sha1sum[tarvex_l_box_cksum_size];
    MD5_Final(md5, &state.md5_ctx);
    SHA1_Final(sha1, &state.sha_ctx);
    tarvex_l_box_hex(md5, sizeof md5, cksumstr);
    tarvex_l_box_hex(sha1, sizeof sha1, sha1sum);

    if (path_info->sha1 != nullptr && strcmp(path_info->sha1, sha1sum) == 0) {
        /* The bytes were the whole file: keep its MD5 in the record and in
         * Box, so that the next request is answered without a download. */
        (void)tarvex_box_field_set(&path_info->md5, cksumstr);
        if (!tarvex::Result(tarvex_i_box_set_metadata(box, path_info, "tarvex-md5", cksumstr))
                 .ok())
            TARVEX_BOX_LOG(TARVEX_BOX_DEBUG, "cksm metadata set failed: path=%s\n",
                           cmd_info->pathname);
    }
    if (alg == TARVEX_L_BOX_CKSM_SHA1)
        tarvex_l_box_reply_with(cksumstr, sha1sum);
    return TARVEX_SUCCESS;
}

/* The fixed refusal of every command the plug-in does not serve.  The
 * class word is spelled so on purpose: clients have always seen it. */
tarvex_result_t tarvex_l_box_refusal()
{
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "NOT_IMPLEMETED", nullptr);
    return error ? tarvex_error_put(error) : TARVEX_BOX_MALLOC_ERROR();
}

} // namespace

extern "C" tarvex_result_t tarvex_i_box_cksm_cb(void *callback_arg, void *buffer,
                                                size_t buffer_length)
{
    auto *state = static_cast<tarvex_i_box_cksm_state_t *>(callback_arg);
    state->total_bytes += static_cast<tarvex_off_t>(buffer_length);
    tarvex_l_box_cksm_progress(state);
    MD5_Update(&state->md5_ctx, buffer, buffer_length);
    SHA1_Update(&state->sha_ctx, buffer, buffer_length);
    return TARVEX_SUCCESS;
}

extern "C" tarvex_result_t tarvex_i_box_delete_object(tarvex_box_session_t *box,
                                                     tarvex_box_path_info_t *path_info,
                                                     int type)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_delete_object(box, path_info, type));
}

namespace {

/* Runs a command that may change Box, guarded, and publishes the paths it
 * changed (`path`, and `other_path` when set) before its reply goes out. */
template <class Work>
tarvex_result_t tarvex_l_box_changing(tarvex_box_session_t *box, const char *path,
                                      const char *other_path, Work &&work)
{
    const unsigned long writes = tarvex_box_journal_writes(box);
    tarvex_result_t result = tarvex_box_guarded(std::forward<Work>(work));
    tarvex_box_journal_publish(box, writes, path, other_path);
    return result;
}

tarvex_result_t tarvex_l_box_delete(tarvex_box_session_t *box, const char *path, int type)
{
    tarvex_box_path_info_t *path_info = nullptr;
    tarvex_result_t resolved = tarvex_box_path_resolve(box, path, &path_info, nullptr);
    if (resolved != TARVEX_SUCCESS)
        return resolved;
    return tarvex_i_box_delete_object(box, path_info, type);
}

} // namespace

extern "C" void tarvex_i_box_mkdir(tarvex_gfs_operation_t op,
                                   tarvex_gfs_command_info_t *cmd_info,
                                   tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result = tarvex_l_box_changing(box, cmd_info->pathname, nullptr, [&] {
        return tarvex_l_box_mkdir(box, cmd_info->pathname);
    });
    /* MKD's reply text is the path asked for, whatever the outcome. */
    tarvex_gridftp_server_finished_command(op, result, cmd_info->pathname);
    TARVEX_BOX_TRACE_RESULT(result);
}

extern "C" void tarvex_i_box_delete(tarvex_gfs_operation_t op,
                                    tarvex_gfs_command_info_t *cmd_info,
                                    tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result = tarvex_l_box_changing(box, cmd_info->pathname, nullptr, [&] {
        return tarvex_l_box_delete(box, cmd_info->pathname, cmd_info->command);
    });
    tarvex_gridftp_server_finished_command(op, result, nullptr);
    TARVEX_BOX_TRACE_RESULT(result);
}

extern "C" void tarvex_i_box_rename(tarvex_gfs_operation_t op,
                                    tarvex_gfs_command_info_t *cmd_info,
                                    tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result =
        tarvex_l_box_changing(box, cmd_info->pathname, cmd_info->from_pathname, [&] {
            return tarvex_l_box_rename(box, cmd_info->from_pathname, cmd_info->pathname);
        });
    tarvex_gridftp_server_finished_command(op, result, nullptr);
    TARVEX_BOX_TRACE_RESULT(result);
}

extern "C" void tarvex_i_box_cksm(tarvex_gfs_operation_t op,
                                  tarvex_gfs_command_info_t *cmd_info,
                                  tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    char cksumstr[tarvex_l_box_cksum_size] = "";
    /* A recorded MD5 property changes the file's record. */
    tarvex_result_t result = tarvex_l_box_changing(box, cmd_info->pathname, nullptr, [&] {
        return tarvex_l_box_cksm(op, cmd_info, box, cksumstr);
    });
    tarvex_gridftp_server_finished_command(op, result, cksumstr[0] != '\0' ? cksumstr : nullptr);
    TARVEX_BOX_TRACE_RESULT(result);
}

extern "C" void tarvex_i_box_command(tarvex_gfs_operation_t op,
                                     tarvex_gfs_command_info_t *cmd_info, void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    /* The token is renewed first, even for a command that is then refused. */
    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_command(op, result, nullptr);
        TARVEX_BOX_TRACE_RESULT(result);
        return;
    }
    switch (cmd_info->command) {
    case TARVEX_GFS_CMD_MKD:
        tarvex_i_box_mkdir(op, cmd_info, box);
        break;
    case TARVEX_GFS_CMD_RMD:
    case TARVEX_GFS_CMD_DELE:
    case TARVEX_GFS_CMD_SITE_RDEL:
        tarvex_i_box_delete(op, cmd_info, box);
        break;
    case TARVEX_GFS_CMD_RNTO:
        tarvex_i_box_rename(op, cmd_info, box);
        break;
    case TARVEX_GFS_CMD_CKSM:
        tarvex_i_box_cksm(op, cmd_info, box);
        break;
    default:
        /* RNFR too: the rename takes its source from RNTO's from_pathname. */
        tarvex_gridftp_server_finished_command(op, tarvex_l_box_refusal(), nullptr);
        break;
    }
    TARVEX_BOX_TRACE_EXIT();
}
