/*
 * Session end: releases the session record and everything it holds.
 */
#include <cstdlib>

#include "destroy.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "retry.h"
#include "session_journal.h"
#include "tarvex_box_common.h"

namespace {

void tarvex_l_box_free_path_info(void *datum)
{
    tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t *>(datum));
}

} // namespace

extern "C" void tarvex_i_box_destroy(void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    if (box == nullptr) {
        TARVEX_BOX_TRACE_EXIT();
        return;
    }

    tarvex_hashtable_destroy_all(&box->cache, tarvex_l_box_free_path_info);

    /* The upload table was created like the path cache and so holds a root
     * path record under "/" (no upload ever targets "/").  It is not an
     * upload session: release it as what it is before the table releases
     * its upload sessions. */
    if (box->upload_state != nullptr)
        tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t *>(
            tarvex_hashtable_remove(&box->upload_state, const_cast<char *>("/"))));
    tarvex_hashtable_destroy_all(&box->upload_state, tarvex_box_upload_session_free);

    tarvex_box_journal_close(box);

    /* Pacing states that were never opened have nothing to release. */
    if (box->user_retry.is)
        tarvex_i_box_retry_state_destroy(&box->user_retry);
    if (box->user_upload_retry.is)
        tarvex_i_box_retry_state_destroy(&box->user_upload_retry);

    free(box->username);
    free(box->user_id);
    free(box->access_token);
    free(box);
    TARVEX_BOX_TRACE_EXIT();
}
