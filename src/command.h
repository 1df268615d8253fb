/*
 * The command operation and its handlers (MKD, DELE/RMD, RNFR/RNTO, CKSM).
 */
#ifndef TARVEX_BOX_COMMAND_H
#define TARVEX_BOX_COMMAND_H

#include <openssl/md5.h>
#include <openssl/sha.h>

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_command(tarvex_gfs_operation_t op,
                          tarvex_gfs_command_info_t *cmd_info, void *user_arg);

/* The handlers of the command operation; each reports its completion once. */
void tarvex_i_box_mkdir(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                        tarvex_box_session_t *box);
void tarvex_i_box_delete(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                         tarvex_box_session_t *box);
void tarvex_i_box_rename(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                         tarvex_box_session_t *box);
void tarvex_i_box_cksm(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                       tarvex_box_session_t *box);

/*
 * Deletes the Box item of a resolved record with one DELETE: `type` is the
 * command type (TARVEX_GFS_CMD_DELE needs a file, TARVEX_GFS_CMD_RMD a
 * folder, TARVEX_GFS_CMD_SITE_RDEL a folder and deletes its tree).  Once a
 * request has been sent the record's cache entry may have been removed
 * (and the record freed): the caller must not use `path_info` afterwards.
 * A refusal by Box is never retried.
 */
tarvex_result_t tarvex_i_box_delete_object(tarvex_box_session_t *box,
                                           tarvex_box_path_info_t *path_info, int type);

/* The progress and digest state of one checksum download. */
typedef struct tarvex_i_box_cksm_state_s {
    tarvex_gfs_operation_t op;
    int response_freq;  /* seconds between progress replies */
    int response_due;   /* when the next one is due; 0: none */
    tarvex_off_t total_bytes;
    MD5_CTX md5_ctx;
    SHA_CTX sha_ctx;
} tarvex_i_box_cksm_state_t;

/* The checksum download's data callback (argument: the state). */
tarvex_result_t tarvex_i_box_cksm_cb(void *callback_arg, void *buffer,
                                     size_t buffer_length);

}

#endif
