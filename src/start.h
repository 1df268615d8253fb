/*
 * The storage interface's session start: the session record from the
 * client's credential.
 */
#ifndef TARVEX_BOX_START_H
#define TARVEX_BOX_START_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_start(tarvex_gfs_operation_t op,
                        tarvex_gfs_session_info_t *session_info);

}

#endif
