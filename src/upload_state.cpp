/*
 * The cross-process upload lock.  Served from a later release; until then
 * taking or releasing it fails with a clear error.  Nothing calls it yet.
 */
#include "tarvex_box_common.h"

extern "C" tarvex_result_t tarvex_i_box_upload_state_lock(void *, bool);
extern "C" tarvex_result_t tarvex_i_box_upload_state_unlock(void *);

extern "C" tarvex_result_t tarvex_i_box_upload_state_lock(void *, bool)
{
    return tarvex_box_not_implemented_yet("The upload lock");
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_unlock(void *)
{
    return tarvex_box_not_implemented_yet("The upload lock");
}
