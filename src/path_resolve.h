/*
 * A path's item record, and its parent's, through the cache or from Box.
 */
#ifndef TARVEX_BOX_PATH_RESOLVE_H
#define TARVEX_BOX_PATH_RESOLVE_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_path_resolve(tarvex_box_session_t *box, const char *path,
                                        tarvex_box_path_info_t **entry_out,
                                        tarvex_box_path_info_t **parent_out);

}

#endif
