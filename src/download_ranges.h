/*
 * A large download in several ranges at once.
 *
 * A distant Box serves each connection at a limited rate (tens of MB/s),
 * whatever the client's line could take.  With the policy's
 * "download_streams" above 1, a RETR of more than
 * tarvex_i_box_streams_minimum bytes from its offset to the end of the
 * file fetches that many ranges of the download link at once, each on a
 * thread and connection of its own, and hands them to the data channel in
 * file order: the server sends a stream-mode transfer in the order it is
 * given the bytes, whatever their offsets, and the plug-in asks for ordered
 * data.
 *
 * The file is cut into ranges of equal length between
 * tarvex_i_box_stream_range_min and tarvex_i_box_stream_range_max (8 and
 * 16 MiB), fetched in order; as one ends, the next not yet asked for
 * starts.  A range goes to the data channel as it arrives when every range
 * before it has gone; the others wait in a buffer of their own, one per
 * stream and one more, so the memory stays within (streams + 1) x 16 MiB.
 * The link is signed: no token goes with it, and no request is paced (as
 * for the one-stream download).  Each range has the attempts the download
 * has left after the content request; a retry asks only for the bytes of
 * the range not yet received.  Every 206 must name the file's size as the
 * listing gave it: a file that changed on Box since then fails the
 * transfer instead of arriving as a mixture.  ABOR, a closed data
 * connection, the server stopping, or a range that fails for good end every
 * request within a second; every thread is joined before this returns.
 */
#ifndef TARVEX_BOX_DOWNLOAD_RANGES_H
#define TARVEX_BOX_DOWNLOAD_RANGES_H

#include <stdint.h>

#include "tarvex_box_common.h"

/* Process-wide settings (tests lower them). */
extern int64_t tarvex_i_box_streams_minimum;  /* 64 MiB */
extern int64_t tarvex_i_box_stream_range_min; /* 8 MiB */
extern int64_t tarvex_i_box_stream_range_max; /* 16 MiB */

/* Whether a read range goes in several streams: the policy asks for them,
 * and it runs from `offset` to the end of a file of `size` bytes that are
 * more than tarvex_i_box_streams_minimum. */
bool tarvex_box_download_in_streams(tarvex_off_t offset, tarvex_off_t length, uint64_t size);

/*
 * Sends bytes `offset` to `size` - 1 of the file behind the signed link
 * `location` into `op`, tarvex_i_box_download_streams ranges at once, each
 * range with `attempts` attempts.  `*started` is false when no thread
 * could be started: nothing was asked for or sent, and the caller
 * downloads in one stream instead.
 */
tarvex_result_t tarvex_box_download_ranges(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                                           const char *location, tarvex_off_t offset,
                                           uint64_t size, int attempts, bool *started);

#endif
