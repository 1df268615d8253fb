/*
 * The stat operation: one item, or a folder listing in batches.
 */
#ifndef TARVEX_BOX_STAT_H
#define TARVEX_BOX_STAT_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *stat_info,
                       void *user_arg);

typedef struct tarvex_box_stat_state_s {
    tarvex_gfs_operation_t op;
    tarvex_gfs_stat_info_t *stat_info;
    tarvex_gridftp_server_control_stat_t *stat_array; /* 100 entries */
    int stat_count;
} tarvex_box_stat_state_t;

void tarvex_i_box_stat_single(tarvex_gfs_operation_t op,
                              tarvex_gfs_stat_info_t *stat_info,
                              tarvex_box_session_t *box);
void tarvex_i_box_stat_multi(tarvex_gfs_operation_t op,
                             tarvex_gfs_stat_info_t *stat_info,
                             tarvex_box_session_t *box);
tarvex_result_t tarvex_box_stat_entry(tarvex_box_session_t *box, const char *base_path,
                                      tarvex_box_path_info_t *path_info,
                                      void *callback_arg);

}

#endif
