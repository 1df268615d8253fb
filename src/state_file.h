/*
 * What the two per-user state files (the pacing records under
 * "$HOME/.tarvex/box-r" and the upload lock under "$HOME/.tarvex/box-u")
 * share: naming, creating, opening, checking and locking the file.
 */
#ifndef TARVEX_BOX_STATE_FILE_H
#define TARVEX_BOX_STATE_FILE_H

#include <stdio.h>
#include <stdlib.h>

#include "owned_file.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

/* Stays on in release builds: a template without a directory is a bug
 * that must not pass silently. */
#define TARVEX_BOX_CHECK(condition)                                             \
    do {                                                                        \
        if (!(condition)) {                                                     \
            fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", __FILE__,    \
                    __LINE__, __func__, #condition);                            \
            abort();                                                            \
        }                                                                       \
    } while (0)

/* "%s/%s" of the directory template and `name`, expanded; none when it
 * cannot be made (the caller then falls back to private memory, so the
 * reason is dropped). */
tarvex_box_cstr_ptr tarvex_box_state_file_path(const char *dir_template, const char *name);

/* Creates the directory `path` (mode 0700) when it is missing; only that
 * level.  Its failures are not reported: the caller falls back. */
void tarvex_box_state_file_make_dir(const char *path);

/* Creates the last directory of `path` (mode 0700) when it is missing;
 * only that level, so a user without "$HOME/.tarvex" gets no file. */
void tarvex_box_state_file_make_parent(char *path);

/* Opens or creates the file (mode 0600), up to 10 attempts; -1 when none
 * succeeds. */
int tarvex_box_state_file_open(const char *path);

/* A file that is not ours must not steer our requests; one that is not a
 * regular file (a FIFO, a device) could never be sized and would keep
 * creation waiting for ever. */
bool tarvex_box_state_file_usable(int fd);

/* The whole way to a state file: named in `dir_template`, its folder made,
 * opened or created, and kept only when usable (ours, a regular file): a
 * descriptor, or none for the caller's private fallback. */
tarvex_box_fd tarvex_box_state_file_open_named(const char *dir_template, const char *name);

/* An fcntl record lock over the whole file, repeated while interrupted;
 * fcntl's result. */
int tarvex_box_state_file_lock(int fd, short type, int command);

/* The system error of a failed lock.  The call is named "fnctl", not
 * "fcntl": clients have always read the failure so. */
tarvex_result_t tarvex_box_state_file_lock_error();

/* The lock of a handle's file as a result: success, or the error above. */
tarvex_result_t tarvex_box_state_file_lock_result(int fd, short type, int command);

/* A private zero-filled block for a handle that keeps a descriptor
 * number (its destroy unmaps it); MAP_FAILED when there is none. */
void *tarvex_box_state_file_anonymous(size_t size);

/* A private zero-filled block for a handle without a descriptor number
 * (its destroy frees it); NULL when memory runs out. */
void *tarvex_box_state_file_private(size_t size);

/* Releases a handle's record: freed when the handle has no descriptor
 * number (-1), else `mapped_length` bytes unmapped and the number closed
 * and set to -1 (owned_file.h says why a length may fall short). */
void tarvex_box_state_file_release(int *fd, void *record, size_t mapped_length);

#endif
