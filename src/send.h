/*
 * The storage interface's retrieve: a Box file to the client.
 */
#ifndef TARVEX_BOX_SEND_H
#define TARVEX_BOX_SEND_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_send(tarvex_gfs_operation_t op,
                       tarvex_gfs_transfer_info_t *transfer_info, void *user_arg);

}

/*
 * The request for the bytes behind a download link Box answered with (one
 * stream's, or one range's of several): a GET whose body goes to `read`
 * and whose "Content-Range" is wanted, prepared by `resume` before each
 * attempt (both with `arg`).  Only API requests are paced: the content
 * request just was, and the download goes to the host its redirect names.
 * It is good only when it brought the bytes (200 or 206), judged by its
 * status alone (the body went to the client).  The link is signed: it goes
 * without the token, wherever it points.
 */
tarvex_box_request_t tarvex_box_download_request(
    const char *location, tarvex_dsi_rest_data_read_t read,
    tarvex_result_t (*resume)(tarvex_box_request_t *request, void *arg), void *arg,
    int attempts);

#endif
