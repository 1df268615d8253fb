/*
 * The parts of a Box upload session: reading one part of the client's data
 * into memory, the PUT that sends it, and sending several at once.
 *
 * By default the parts go one after another (recv.cpp).  With the policy's
 * "upload_parts_in_flight" above 1 they go up to that many at a time: a
 * distant Box spends a round trip and its own processing on every part,
 * and one connection is served at a limited rate, so one part at a time
 * leaves most of the line idle (against the emulator's distant profile,
 * 100 ms a request, 50 ms a part and 50 MB/s a connection, a 1 GiB upload
 * takes about 41 s one part at a time, and a quarter of that with four).
 */
#ifndef TARVEX_BOX_UPLOAD_PARTS_H
#define TARVEX_BOX_UPLOAD_PARTS_H

#include <stddef.h>

#include "tarvex_box_common.h"

/* ---- one part ---- */

/* "sha=" and the base64 of a SHA-1 digest: the form of Box's "digest"
 * header, for one part and for the whole file. */
constexpr size_t tarvex_box_digest_size = sizeof("sha=") - 1 + 28 + 1;
void tarvex_box_digest_value(const unsigned char sha1[SHA_DIGEST_LENGTH],
                             char value[tarvex_box_digest_size]);

/*
 * Meeting point of the thread reading the client's data into a part and
 * the framework's read completions (which run on another thread).  Guarded
 * by `mutex`; every completion signals `cond`.
 */
typedef struct tarvex_box_monitor_s {
    tarvex_mutex_t mutex;
    tarvex_cond_t cond;
    size_t length;          /* bytes in the part buffer so far */
    bool eof;               /* the client's data has ended */
    bool done;              /* cleared with the others; nothing reads it */
    tarvex_result_t result; /* of the latest completion */
    /* Completions so far: the reader waits until this moves, since a
     * condition variable may wake without a signal, and a second read
     * registered while the first is still out would fill the same bytes. */
    unsigned long completions;
} tarvex_box_monitor_t;

/* A monitor with its mutex and condition made, and destroyed with it. */
struct tarvex_box_monitor_scope {
    tarvex_box_monitor_t monitor = {};
    tarvex_box_monitor_scope();
    ~tarvex_box_monitor_scope();
    tarvex_box_monitor_scope(const tarvex_box_monitor_scope &) = delete;
    tarvex_box_monitor_scope &operator=(const tarvex_box_monitor_scope &) = delete;
};

/*
 * Fills `buffer` from the client's data: up to `part_size` bytes, or fewer
 * when the data ends; the count is in monitor->length.  After the `last`
 * part one more read of no bytes has to see the end of the data, so that a
 * client sending more than it announced fails the store instead of being
 * cut short silently.  One read is out at a time.  A read that fails ends
 * the filling: what follows it cannot be trusted.
 */
tarvex_result_t tarvex_box_fill_part(tarvex_gfs_operation_t op, tarvex_box_monitor_t *monitor,
                                     tarvex_byte_t *buffer, size_t part_size, bool last);

/*
 * The PUT of one part as Box has always been sent it: "Content-Type",
 * "Content-Range" and the part's own "digest", the part's bytes as the
 * body, three attempts, no pacing (a part may take long; the upload
 * session was paced when it was made), twice the usual idle time.
 * prepare() digests the part and fills `request`; the caller adds how the
 * token is renewed before each attempt, then sends it.  The data must
 * stay in place until the request is over.
 */
class tarvex_box_part_put {
public:
    tarvex_box_part_put() = default;
    ~tarvex_box_part_put();
    tarvex_box_part_put(const tarvex_box_part_put &) = delete;
    tarvex_box_part_put &operator=(const tarvex_box_part_put &) = delete;

    tarvex_result_t prepare(const tarvex_box_upload_session_t *upload, const char *url,
                            int index, const tarvex_byte_t *data, size_t length);

    tarvex_box_request_t request = {};

private:
    char digest_[tarvex_box_digest_size] = {};
    char range_[80] = {};
    tarvex_dsi_rest_key_value_t headers_[3] = {};
    tarvex_dsi_rest_write_block_arg_t block_ = {};
};

/* ---- several parts at once ---- */

/*
 * Sends the parts from `first_part` to the last, `in_flight` (2 to 8) at a
 * time, and leaves the record as the one-at-a-time uploader would: its part
 * list and its running SHA-1 and MD5 hold exactly the parts Box has
 * acknowledged from the start of the file up to the first that is missing,
 * so that a store that fails can be restarted at that part's boundary.
 *
 * The client's data is still read in order, one part at a time, into one
 * of in_flight buffers: the memory stays within in_flight x part size and
 * the session's own.  Each part's own SHA-1 is
 * taken by the thread that sends it; the whole file's SHA-1 and MD5 by one
 * thread, part after part in file order, beside the requests.  A part that
 * fails is retried within its own three attempts while the others go on;
 * one that fails for good fails the store: no further part is read, the
 * parts after it are abandoned, those before it are let finish.  The
 * operation's cancellation (ABOR, the client gone, the server stopping)
 * abandons every request within a second.  Every thread is joined before
 * this returns.
 *
 * `*started` is false when no thread could be started: nothing was read
 * or sent, and the caller sends the parts one at a time instead.
 */
tarvex_result_t tarvex_box_upload_parts_in_flight(tarvex_gfs_operation_t op,
                                                  tarvex_box_session_t *box,
                                                  tarvex_box_upload_session_t *upload,
                                                  const char *url, int first_part,
                                                  int in_flight, bool *started);

#endif
