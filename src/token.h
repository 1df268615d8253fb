/*
 * The access token: its renewal and the credential it comes from.
 */
#ifndef TARVEX_BOX_TOKEN_H
#define TARVEX_BOX_TOKEN_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_token_refresh(tarvex_box_session_t *box,
                                         tarvex_gfs_operation_t op);
tarvex_result_t tarvex_box_get_kelm_token(tarvex_box_session_t *box,
                                          tarvex_gfs_operation_t op);
tarvex_result_t tarvex_i_box_parse_date(const char *text, time_t *time);

}

#endif
