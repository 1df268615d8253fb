/*
 * Session start: one client login.  Builds the session record, reads the
 * policy and the user's Box credential, opens the two pacing states,
 * creates the session's tables and proves the token by listing the Box
 * root, which also fills the path cache with the root's children.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "config.h"
#include "destroy.h"
#include "evaluate_path.h"
#include "get_folder_items.h"
#include "path_cache.h"
#include "retry.h"
#include "session_journal.h"
#include "start.h"
#include "state_file.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "token.h"

namespace {

tarvex_result_t tarvex_l_box_internal_error(const char *message)
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "INTERNAL_ERROR", "%s%s", "GridFTP-Error: ", message));
}

/* "$HOME/.tarvex" of the password entry, created private when missing.
 * Its own failures are not fatal: pacing then falls back to private
 * records. */
void tarvex_l_box_make_home_dir()
{
    char *path = nullptr;
    tarvex_error_discard(tarvex_box_evaluate_path("$HOME/.tarvex", &path));
    if (const tarvex_box_cstr_ptr owned{path})
        tarvex_box_state_file_make_dir(owned.get());
}

tarvex_result_t tarvex_l_box_read_policy(tarvex_gfs_operation_t op)
{
    char *text = nullptr;
    tarvex_result_t result = tarvex_gridftp_server_get_config_data(op, "config", &text);
    /* The framework hands over an allocated copy that is ours to free. */
    const tarvex_box_cstr_ptr policy(text);
    /* Only the policy's absence is reported, not why it is absent. */
    tarvex_error_discard(result);
    if (result != TARVEX_SUCCESS || policy == nullptr)
        return tarvex_l_box_internal_error("Missing storage gateway policy.");
    return tarvex_box_config_parse_json(policy.get(), &tarvex_i_box_api_per_second);
}

tarvex_result_t tarvex_l_box_start(tarvex_gfs_operation_t op, tarvex_box_session_t *box)
{
    tarvex_result_t result = tarvex_l_box_read_policy(op);
    if (result != TARVEX_SUCCESS)
        return result;

    result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS)
        return result;
    if (box->access_token == nullptr)
        return tarvex_l_box_internal_error("User's Box credentials are not available.");

    tarvex_l_box_make_home_dir();

    /* One pacing file per Box user for API calls and one for uploads, so
     * that all of the user's sessions on this host share them. */
    tarvex_i_box_retry_state_create(box->user_id, tarvex_i_box_api_per_second,
                                    &box->user_retry);
    const std::string upload_name = std::string(box->user_id) + "u";
    tarvex_i_box_retry_state_create(upload_name.c_str(), tarvex_i_box_upload_per_second,
                                    &box->user_upload_retry);

    /* Both tables start like the path cache, the upload table with a root
     * record of its own that session end releases. */
    result = tarvex_box_path_cache_init(&box->cache);
    if (result != TARVEX_SUCCESS)
        return result;
    result = tarvex_box_path_cache_init(&box->upload_state);
    if (result != TARVEX_SUCCESS)
        return result;

    /* Before the root listing: a change another session makes meanwhile
     * is then caught up with at the first lookup. */
    result = tarvex_box_journal_open(box);
    if (result != TARVEX_SUCCESS)
        return result;

    result = tarvex_box_get_folder_items(box, "0", "/", nullptr, nullptr);
    tarvex_box_path_info_t *root = tarvex_box_path_cache_query(&box->cache, "/");
    if (result == TARVEX_SUCCESS && root != nullptr)
        tarvex_box_cache_mark_listed(root);
    return result;
}

} // namespace

extern "C" void tarvex_i_box_start(tarvex_gfs_operation_t op,
                                   tarvex_gfs_session_info_t *session_info)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result = TARVEX_SUCCESS;
    /* The record until the framework takes it: a refused login leaves
     * nothing behind (no record, no open pacing file, no cached item), and
     * session end releases a half-built record as well as a whole one. */
    std::unique_ptr<tarvex_box_session_t, tarvex_box_releaser<tarvex_i_box_destroy>> box(
        static_cast<tarvex_box_session_t *>(calloc(1, sizeof(tarvex_box_session_t))));
    if (box == nullptr || (session_info != nullptr && session_info->username != nullptr &&
                           !tarvex_box_field_set(&box->username, session_info->username))) {
        result = TARVEX_BOX_MALLOC_ERROR();
    } else {
        box->user_retry.fd = -1;
        box->user_upload_retry.fd = -1;
        /* Called from C: what the start builds as strings (the upload
         * pacing name, the policy's bases) must not throw past here. */
        result = tarvex_box_guarded([&] { return tarvex_l_box_start(op, box.get()); });
    }

    if (result == TARVEX_SUCCESS) {
        tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;MD5:8;");
        static char home_dir[] = "/";
        tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, box.release(),
                                                     nullptr, home_dir);
        return;
    }

    box.reset();
    tarvex_gridftp_server_finished_session_start(op, result, nullptr, nullptr, nullptr);
    TARVEX_BOX_TRACE_RESULT(result);
}
