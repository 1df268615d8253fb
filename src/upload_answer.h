/*
 * What a store makes of Box's answer to its last request (the one-request
 * upload, or the commit of an upload session).
 *
 * A store is reported done only when Box names the file it stored: an
 * answer without a usable entry is a failure, however Box's status read.
 * And an answer can be lost after Box acted on the request (a connection
 * reset, a cut answer): then a retried commit finds its session gone, and
 * a one-request upload cannot be sent again.  In both cases the file is
 * looked up in its folder, and taken as stored when its size and SHA-1 are
 * those of the bytes sent; otherwise the store's own failure stands.
 */
#ifndef TARVEX_BOX_UPLOAD_ANSWER_H
#define TARVEX_BOX_UPLOAD_ANSWER_H

#include <string>

#include "tarvex_box_common.h"

/* The file a store meant to leave on Box. */
struct tarvex_box_stored_file {
    const tarvex_box_path_info_t *parent; /* its folder */
    const char *name;                     /* its name there */
    bool new_version;                     /* a new version of the file of that name */
    uint64_t size;
    std::string sha1;                     /* lower-case hex */
    const char *md5;                      /* the "tarvex-md5" to store, or NULL */
};

/*
 * The outcome of the store's last request: `result` and the request's
 * outputs.  Success when Box's answer names a usable entry (cached, with
 * its MD5 property when `file.md5` is set); when the answer was lost, or
 * came without a usable entry, whatever the lookup finds right; else the
 * failure (the request's own, or what was wrong with the answer).
 */
tarvex_result_t tarvex_box_store_outcome(tarvex_box_session_t *box,
                                         const tarvex_box_stored_file &file,
                                         tarvex_result_t result,
                                         const tarvex_box_request_t &request);

#endif
