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

#endif
