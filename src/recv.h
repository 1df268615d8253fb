/*
 * The storage interface's store: a client's file to Box, in one request or
 * by an upload session.
 */
#ifndef TARVEX_BOX_RECV_H
#define TARVEX_BOX_RECV_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_recv(tarvex_gfs_operation_t op,
                       tarvex_gfs_transfer_info_t *transfer_info, void *user_arg);

tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op,
                                        tarvex_gfs_transfer_info_t *info,
                                        tarvex_box_session_t *box,
                                        tarvex_box_path_info_t *parent);
tarvex_result_t tarvex_i_box_recv_chunked(tarvex_gfs_operation_t op,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *parent);
tarvex_result_t tarvex_i_box_create_upload_session(tarvex_box_session_t *box,
                                                   tarvex_gfs_transfer_info_t *info,
                                                   tarvex_box_path_info_t *parent,
                                                   tarvex_box_upload_session_t **upload);
tarvex_result_t tarvex_box_upload_session_parse(json_t *json,
                                                tarvex_box_upload_session_t *info);
tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op,
                                          tarvex_box_session_t *box,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_upload_session_t *upload);
tarvex_result_t tarvex_i_box_commit_upload(tarvex_gfs_operation_t op,
                                           tarvex_box_session_t *box,
                                           tarvex_gfs_transfer_info_t *info,
                                           tarvex_box_path_info_t *parent,
                                           tarvex_box_upload_session_t *upload);

}

#endif
