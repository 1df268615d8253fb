/*
 * One Box call by the request conventions (the record and its description
 * are in tarvex_box_common.h).
 */
#ifndef TARVEX_BOX_REQUEST_H
#define TARVEX_BOX_REQUEST_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_request(tarvex_box_session_t *box,
                                   tarvex_box_request_t *request);
/* Releases the outputs (header values, document). */
void tarvex_box_request_release(tarvex_box_request_t *request);
/* The value of a wanted response header ("Retry-After" or one named in
 * wanted_headers, compared without case) after the call, or NULL. */
const char *tarvex_box_request_header(const tarvex_box_request_t *request,
                                      const char *name);

}

#endif
