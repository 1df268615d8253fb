/*
 * Box metadata properties (the stored MD5 of a file).  Served from a later
 * release; until then storing a property fails with a clear error.
 */
#include "tarvex_box_common.h"

extern "C" tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t *,
                                                     tarvex_box_path_info_t *,
                                                     const char *, const char *)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result = tarvex_box_not_implemented_yet("Storing metadata properties");
    TARVEX_BOX_TRACE_RESULT(result);
    return result;
}
