/*
 * The upload lock: a per-user state file shared between processes.
 */
#ifndef TARVEX_BOX_UPLOAD_STATE_H
#define TARVEX_BOX_UPLOAD_STATE_H

#include <openssl/md5.h>
#include <openssl/sha.h>

#include "tarvex_box_common.h"

extern "C" {

/* The file's layout (4440 bytes, host byte order). */
struct tarvex_box_upload_state_shared_s {
    char id[128];
    int32_t num_parts;
    uint64_t part_size;
    uint64_t total_size;
    MD5_CTX md5_ctx;
    SHA_CTX sha1_ctx;
    char name[4096];
    uint32_t part_array[]; /* no room for it in the file */
};

typedef struct tarvex_box_upload_state_s {
    bool is;
    int fd; /* -1: private memory */
    struct tarvex_box_upload_state_shared_s *shared;
} tarvex_box_upload_state_t;

void tarvex_i_box_upload_state_create(const char *name,
                                      tarvex_box_upload_state_t *upload_state);
tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t *upload_state,
                                               bool blocking);
tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t *upload_state);
void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t *upload_state);

}

#endif
