/*
 * The pacing state of a Box user's traffic (the record is in
 * tarvex_box_common.h): its file, its lock and the wait before each request.
 */
#ifndef TARVEX_BOX_RETRY_H
#define TARVEX_BOX_RETRY_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_retry_state_create(const char *name, int per_second,
                                     tarvex_box_retry_t *retry);
void tarvex_i_box_retry_state_destroy(tarvex_box_retry_t *retry);
tarvex_result_t tarvex_i_box_retry_state_lock(tarvex_box_retry_t *retry, bool wait);
tarvex_result_t tarvex_i_box_retry_state_unlock(tarvex_box_retry_t *retry);
void tarvex_i_box_retry_delay(uint64_t retry_after, tarvex_box_retry_t *retry);
/* How the wait for a "Retry-After" (or a commit's back-off) is taken:
 * sleep(3) here; tests put a recorder in its place. */
extern void (*tarvex_i_box_wait)(unsigned seconds);

}

#endif
