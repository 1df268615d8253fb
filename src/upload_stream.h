/*
 * The client's data as the file part of a one-request upload, counted and
 * digested on its way to Box.
 *
 * Counted, because a client that announced its size (ALLO) and then sends
 * another count of bytes has not sent the file it meant: the body is
 * abandoned before it is complete (the write callback fails, the REST
 * client ends the exchange), so that Box, which stores a file only from a
 * whole body, keeps nothing.  More bytes than announced fail at the first
 * byte too many, fewer at the end of the client's data.  A client that
 * announced nothing cannot be checked: in FTP's stream mode the end of the
 * data connection is the end of the file, whatever broke it off.
 *
 * Digested (SHA-1), because when Box's answer to a whole body is lost the
 * file is looked up on Box and taken only when its size and SHA-1 are the
 * ones sent (upload_answer.h).  And MD5 when asked: a new version of a file
 * replaces the MD5 property the content before it left.
 */
#ifndef TARVEX_BOX_UPLOAD_STREAM_H
#define TARVEX_BOX_UPLOAD_STREAM_H

#include <string>

#include "tarvex_box_common.h"

struct tarvex_box_upload_stream {
    /* The client's data as tarvex_dsi_rest_write_gridftp_op reads it. */
    tarvex_dsi_rest_gridftp_op_arg_t data;
    uint64_t announced = 0; /* the ALLO size; 0: none */
    uint64_t count = 0;     /* bytes handed to the request so far */
    bool ended = false;     /* every byte of the client's data went out */
    bool off_count = false; /* the count is not the announced size: abandoned */
    SHA_CTX sha1;
    bool with_md5 = false;  /* keep an MD5 of the bytes too */
    MD5_CTX md5;

    tarvex_box_upload_stream(tarvex_gfs_operation_t op, tarvex_off_t start,
                             tarvex_off_t length, uint64_t announced_size, bool md5_too);

    /* The digests of the bytes sent, in lower-case hex (once ended). */
    std::string sha1_hex() const;
    std::string md5_hex() const;
    /* 451: the count did not match the announced size (off_count). */
    tarvex_result_t off_count_error() const;
};

/* The REST client's write callback; its argument is the stream. */
tarvex_result_t tarvex_box_upload_stream_write(void *stream, char *buffer, size_t length,
                                               size_t *written);

#endif
