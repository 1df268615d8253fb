/*
 * The cross-process upload lock.  Served from a later release; until then
 * taking or releasing it fails with a clear error.  Nothing calls it yet.
 */
#include <stdlib.h>

#include "tarvex_box_common.h"

extern "C" void tarvex_i_box_upload_state_create(const char *,
                                                 tarvex_box_upload_state_t *upload_state)
{
    upload_state->is = true;
    upload_state->fd = -1;
    upload_state->shared = static_cast<struct tarvex_box_upload_state_shared_s *>(
        calloc(1, sizeof(struct tarvex_box_upload_state_shared_s)));
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t *, bool)
{
    return tarvex_box_not_implemented_yet("The upload lock");
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t *)
{
    return tarvex_box_not_implemented_yet("The upload lock");
}

extern "C" void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t *upload_state)
{
    free(upload_state->shared);
    upload_state->shared = nullptr;
}
