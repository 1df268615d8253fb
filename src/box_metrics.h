/*
 * What the plug-in reports to the server's metrics (the metric calls of
 * tarvex_gridftp_server.h): each a single call at the one place the plug-in
 * knows the fact, so that the request loop, the pacing and the token code
 * each carry one line for it.  Without a collector the calls cost a load.
 */
#ifndef TARVEX_BOX_METRICS_H
#define TARVEX_BOX_METRICS_H

#include <stdint.h>

#include "pacing.h"
#include "tarvex_box_common.h"

/* One attempt of `request` has been sent, and has its answer (or none):
 * counted by method and status, as a retry when it was not the first, and
 * as throttled when Box answered 429. */
void tarvex_box_metric_attempt(const tarvex_box_request_t *request);

/* `seconds` slept because Box said when to try again. */
void tarvex_box_metric_retry_after(uint64_t seconds);

/* A request slot taken from the pacing, with the time it waited. */
void tarvex_box_metric_paced(const tarvex_box_pacing_slot_t &slot);

/* A renewal of the access token was asked for; `ok`: it brought a token
 * that is fresh. */
void tarvex_box_metric_renewal(bool ok);

#endif
