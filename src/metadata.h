/*
 * The item's "properties" metadata.
 */
#ifndef TARVEX_BOX_METADATA_H
#define TARVEX_BOX_METADATA_H

#include "tarvex_box_common.h"

extern "C" {

/* Stores one string property in the item's global "properties" metadata
 * (created by POST, patched by PUT once `has_metadata` is set; sets it). */
tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *path_info,
                                          const char *key, const char *value);

}

#endif
