/*
 * One Box call by the request conventions (the record and its description
 * are in tarvex_box_common.h).
 */
#ifndef TARVEX_BOX_REQUEST_H
#define TARVEX_BOX_REQUEST_H

#include <stddef.h>

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

/* Who makes a request and how often it may be tried. */
struct tarvex_box_call {
    int attempts;
    tarvex_box_retry_t *retry; /* NULL: Retry-After sleep only */
    const char *caller;
};

/* A request that sends `body`, held whole in memory, after `headers`,
 * through the REST client's block writer. */
tarvex_box_request_t tarvex_box_body_request(const char *method, const char *url,
                                             const tarvex_dsi_rest_key_value_t *headers,
                                             size_t header_count,
                                             tarvex_dsi_rest_write_block_arg_t *body,
                                             const tarvex_box_call &call);
template <size_t N>
tarvex_box_request_t tarvex_box_body_request(const char *method, const char *url,
                                             const tarvex_dsi_rest_key_value_t (&headers)[N],
                                             tarvex_dsi_rest_write_block_arg_t *body,
                                             const tarvex_box_call &call)
{
    return tarvex_box_body_request(method, url, headers, N, body, call);
}

#endif
