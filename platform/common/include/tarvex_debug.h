/*
 * Debug handles.
 *
 * tarvex_debug_init(variable, level_names, &handle) reads the environment
 * variable `variable` and fills the handle.  `level_names` names the levels
 * in bit order, separated by blanks: "TRACE DEBUG INFO" gives TRACE = 1,
 * DEBUG = 2, INFO = 4.
 *
 * Grammar of the variable's value (fields separated by commas, trailing
 * fields optional):
 *
 *     LEVELS[,FILE[,TIMESTAMP_LEVELS[,THREAD_IDS]]]
 *
 *   LEVELS            a number (decimal, or 0x hexadecimal) of level bits,
 *                     or level names joined by '|' (case-insensitive);
 *                     "ALL" enables every named level.  0 or an empty value
 *                     turns debugging off.
 *   FILE              where lines go.  Empty or "-": standard error.
 *                     A path is opened for appending; a leading '#' opens
 *                     it truncated instead.  "%p" in the path is replaced
 *                     by the process id.  A file that cannot be opened
 *                     falls back to standard error.
 *   TIMESTAMP_LEVELS  levels (same form as LEVELS) whose lines carry a
 *                     time stamp.
 *   THREAD_IDS        "1", "yes" or "on": prefix lines with the thread id.
 *
 * Examples:  TARVEX_BOX_DEBUG=ALL
 *            TARVEX_BOX_DEBUG="TRACE|ERROR,/tmp/box-%p.log"
 *            TARVEX_BOX_DEBUG=31,/tmp/box.log,ERROR,1
 *
 * Unset, empty or 0: levels 0 and no stream (file NULL): nothing is
 * written.  Unknown level names are ignored.
 */
#ifndef TARVEX_DEBUG_H
#define TARVEX_DEBUG_H

#include <stdio.h>

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tarvex_debug_handle_s {
    unsigned levels;           /* enabled level bits */
    unsigned timestamp_levels; /* levels whose lines carry a time stamp */
    FILE *file;                /* output stream, or NULL: nothing is written */
    bool thread_ids;           /* prefix lines with thread ids */
    bool using_file;           /* `file` was opened by tarvex_debug_init */
} tarvex_debug_handle_t;

/* Fills `handle` from the variable.  Returns 0; non-zero only for invalid
 * arguments or when memory runs out (the handle is then left off). */
TARVEX_API int tarvex_debug_init(const char *env_name, const char *level_names,
                                 tarvex_debug_handle_t *handle);

/* Closes a stream the init opened and turns the handle off. */
TARVEX_API void tarvex_debug_close(tarvex_debug_handle_t *handle);

/* Parses a LEVELS field against `level_names` (exposed for tests). */
TARVEX_API unsigned tarvex_debug_parse_levels(const char *text, const char *level_names);

/* Prints one line at `level` when the level is enabled: the line is
 * "<prefix>: <level name>: <pid>: <text>", locked against other threads.
 * A convenience for the platform's own modules. */
TARVEX_API void tarvex_debug_printf(tarvex_debug_handle_t *handle, unsigned level,
                                    const char *prefix, const char *level_name,
                                    const char *format, ...)
    __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
