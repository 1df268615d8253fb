/*
 * How a pacing state hands out request slots.  A state (one kind of a Box
 * user's traffic: API requests or uploads) is paced either by its file on
 * this host alone, or by a store shared by every host of the site, which
 * falls back to the file while it cannot be reached.  The request path
 * calls tarvex_box_pace() (through tarvex_i_box_retry_delay) and does not
 * know which of the two is in use.
 */
#ifndef TARVEX_BOX_PACING_H
#define TARVEX_BOX_PACING_H

#include <stdint.h>

#include <string>

#include "tarvex_box_common.h"

/* One request slot: where it was stamped, the stamp itself, in
 * microseconds of the clock of whoever stamped it (this host's wall clock
 * for the file, the store server's clock for the store), and how long the
 * caller slept for it. */
struct tarvex_box_pacing_slot_t {
    enum source_t { file, store } source;
    int64_t stamp_us;  /* 0: no stamp was made (the file's lock failed) */
    int64_t waited_us; /* the sleep asked for the spacing */
};

/*
 * The interface.  take_slot waits until this process may send its next
 * request of the state's kind, stamps that moment and returns it; it
 * never fails (a pacer that cannot do its part leaves it to the file).
 * `retry` is the handle being paced: its spacing (`delay`) and its file.
 */
struct tarvex_box_pacing_s {
    virtual ~tarvex_box_pacing_s() = default;
    virtual tarvex_box_pacing_slot_t take_slot(tarvex_box_retry_t *retry) = 0;
};

/* The file pacing: every process of this host that maps the handle's
 * record keeps its requests `delay` apart.  Stateless, so one serves all. */
tarvex_box_pacing_s &tarvex_box_file_pacing();

/* Takes a slot through whatever paces `retry`: its store, or its file. */
tarvex_box_pacing_slot_t tarvex_box_pace(tarvex_box_retry_t *retry);

/*
 * The shared store named by the policy key "pacing_store": `url` is its
 * value, null for none.  A value that names no store this build can use
 * leaves none and returns false with the reason in `why` (words for a
 * client: never the password).
 */
bool tarvex_box_pacing_store_configure(const char *url, std::string *why);

/* A pacer for the state `name` (the Box user id, followed by "u" for
 * uploads) through the configured store; null when none is configured.
 * Nothing is connected yet: the first slot does that. */
tarvex_box_pacing_s *tarvex_box_pacing_store_open(const char *name);

/* DEBUG lines of the pacing fall back to TRACE should the level lose its
 * name. */
inline unsigned tarvex_box_pacing_debug_level()
{
    return tarvex_i_box_debug_level_names[TARVEX_BOX_DEBUG] ? TARVEX_BOX_DEBUG
                                                            : TARVEX_BOX_TRACE;
}

#endif
