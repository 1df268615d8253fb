/*
 * How a session's path cache stays current when Box changes under it.
 *
 * Two policy keys decide it (read at session start, src/config.cpp):
 *
 * - "session_cache": "private" (the default) keeps the cache a session's
 *   own, as it always was: what another session changes stays unseen until
 *   this session's own commands touch it.  "shared" makes every change a
 *   session makes on Box (MKD, RMD, DELE, SITE RDEL, RNTO, a store, a
 *   recorded checksum property) known to the user's other sessions, which
 *   drop what it makes stale before their next lookup: the changed path
 *   with everything cached below it, and the listed mark of the folder
 *   that holds it.  On one host this goes through a journal file beside
 *   the pacing files; with a "pacing_store", through the store as well, so
 *   that sessions on other hosts see it within a second.
 *
 * - "cache_ttl_seconds": N makes a cached item or folder listing older
 *   than N seconds be fetched again on its next use, for changes made
 *   outside this server (Box's web app, other clients).  Absent: no
 *   expiry.
 *
 * The journal (session_journal.cpp) is a ring of changed paths with a
 * generation counter: a session that is current pays one atomic read per
 * lookup, and one that has fallen behind the ring (or lost track) drops
 * its whole cache, which is always safe.
 */
#ifndef TARVEX_BOX_SESSION_JOURNAL_H
#define TARVEX_BOX_SESSION_JOURNAL_H

#include <stdint.h>

#include <string>

#include "tarvex_box_common.h"

/* ---- the policy ---- */

struct tarvex_box_cache_policy {
    bool shared = false;      /* "session_cache": "shared" */
    int64_t ttl_seconds = -1; /* "cache_ttl_seconds"; -1: no expiry */
};

/* The policy for the sessions started from now on (set by the policy
 * parser, read by session start). */
void tarvex_box_cache_policy_set(const tarvex_box_cache_policy &policy);
tarvex_box_cache_policy tarvex_box_cache_policy_get();

/* Reads the two keys from a policy document; the FTP 500 naming the key
 * when a value is refused, else success (and the policy set). */
tarvex_result_t tarvex_box_cache_policy_parse(json_t *policy);

/* The least time between two looks at the shared store, in milliseconds
 * (250; 0: at every lookup). */
extern int tarvex_i_box_journal_poll_ms;

/* ---- a session's journal ---- */

/* Opens the session's view of the journal (after the policy and the Box
 * user id are known, before the first listing): with "shared" the
 * journal file "<user id>j" beside the pacing files, and the store when
 * the policy names one.  Never fails for want of the file or the store
 * (the session then sees only what reaches it); only an allocation
 * failure is an error. */
tarvex_result_t tarvex_box_journal_open(tarvex_box_session_t *box);
void tarvex_box_journal_close(tarvex_box_session_t *box);

/* Drops from the path cache what the user's other sessions changed since
 * the last call.  Called as every path resolution begins. */
void tarvex_box_journal_catch_up(tarvex_box_session_t *box);

/* The request loop counts every attempt of a request that may change Box
 * (any method but GET); a command publishes only when its count moved, so
 * an MKD of a folder that exists, or a refusal made before asking Box,
 * costs the other sessions nothing. */
void tarvex_box_journal_note_write(tarvex_box_session_t *box);
unsigned long tarvex_box_journal_writes(const tarvex_box_session_t *box);

/* Publishes `path` (and `other_path`, when given: a rename's source) as
 * changed when the session sent a request that may change Box since its
 * count was `writes_before`.  Call before the command's reply goes out, so
 * that a client that waits for it finds the change in its other
 * sessions. */
void tarvex_box_journal_publish(tarvex_box_session_t *box, unsigned long writes_before,
                                const char *path, const char *other_path = nullptr);

/* Whether the session runs with the shared cache. */
bool tarvex_box_cache_shared(const tarvex_box_session_t *box);

/* Publishes `path` as changed, unconditionally ("*": everything). */
void tarvex_box_journal_publish_path(tarvex_box_session_t *box, const char *path);

/* ---- age of cached records ---- */

/* The clock of the records' stamps, in microseconds (the monotonic clock;
 * tests replace it). */
extern int64_t (*tarvex_box_cache_clock_us)(void);

/* Stamps a record as fetched now (the path cache does it on entry). */
void tarvex_box_cache_stamp(tarvex_box_path_info_t *info);
/* Marks a folder record as listed, now. */
void tarvex_box_cache_mark_listed(tarvex_box_path_info_t *folder);
/* Whether a cached record is older than the session's time to live. */
bool tarvex_box_cache_expired(const tarvex_box_session_t *box, const tarvex_box_path_info_t *info);
/* Whether a folder's listing is in the cache and still young enough to
 * say that a name missing from it is missing on Box. */
bool tarvex_box_cache_listed(const tarvex_box_session_t *box, const tarvex_box_path_info_t *folder);
/* Whether the root counts as listed at every resolution (the private
 * cache without expiry: session start listed it, and nothing else could
 * tell otherwise). */
bool tarvex_box_cache_root_always_listed(const tarvex_box_session_t *box);

#endif
