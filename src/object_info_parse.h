/*
 * Box's item documents as item records, and item records as stat entries.
 */
#ifndef TARVEX_BOX_OBJECT_INFO_PARSE_H
#define TARVEX_BOX_OBJECT_INFO_PARSE_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_object_info_parse(json_t *json, tarvex_box_path_info_t *info);
tarvex_box_path_info_t *tarvex_box_path_info_copy(const tarvex_box_path_info_t *info);
void tarvex_box_path_info_free(tarvex_box_path_info_t *info);
tarvex_result_t tarvex_box_info_to_stat(tarvex_box_session_t *box,
                                        const tarvex_box_path_info_t *info,
                                        tarvex_gridftp_server_control_stat_t *stat_out);
uint32_t tarvex_box_hash(const char *text);

}

#endif
