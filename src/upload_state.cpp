/*
 * The upload lock: a per-user state file with room for one chunked upload's
 * progress, mapped into every process of the user on this host and guarded
 * by an fcntl write lock over the whole file.  Creating a handle never
 * fails: whatever goes wrong leaves it on private, zero-filled memory.
 */
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config.h"
#include "state_file.h"
#include "upload_state.h"

/* The file is read by every process of the user, whatever it was built
 * from: the layout must not move. */
static_assert(sizeof(struct tarvex_box_upload_state_shared_s) == 4440, "state file size");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, num_parts) == 128, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, part_size) == 136, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, total_size) == 144, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, md5_ctx) == 152, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, sha1_ctx) == 244, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, name) == 340, "layout");
static_assert(offsetof(struct tarvex_box_upload_state_shared_s, part_array) == 4436, "layout");

namespace {

using shared_t = struct tarvex_box_upload_state_shared_s;

constexpr off_t state_size = sizeof(shared_t);
/* What creation maps while it sizes a new file, and what destroy unmaps. */
constexpr size_t probe_size = 16;

void fall_back_closed(tarvex_box_upload_state_t *upload_state)
{
    upload_state->fd = -1;
    upload_state->shared = static_cast<shared_t *>(calloc(1, sizeof(shared_t)));
}

/*
 * Private memory for a handle that keeps a descriptor number.  Destroy
 * unmaps such a block, so it is an anonymous (zero-filled) mapping; should
 * that fail too, the descriptor is given up so that destroy frees instead.
 */
void fall_back_keeping_fd(tarvex_box_upload_state_t *upload_state, bool fd_open)
{
    void *block = tarvex_box_state_file_anonymous(sizeof(shared_t));
    if (block != MAP_FAILED) {
        upload_state->shared = static_cast<shared_t *>(block);
        return;
    }
    if (fd_open)
        close(upload_state->fd);
    fall_back_closed(upload_state);
}

enum class sizing { map, gave_up };

/*
 * Brings a new file to its size under the lock.  Whoever finds the lock
 * taken waits in one-second steps until the holder has finished the size,
 * then maps without locking.  A lock that fails for another reason than
 * being held (no lock support on the file system) gives up on the file
 * rather than wait for a size that nobody will set.
 */
sizing size_file(tarvex_box_upload_state_t *upload_state, int fd)
{
    struct stat st;
    for (;;) {
        if (tarvex_box_state_file_lock(fd, F_WRLCK, F_SETLK) == 0)
            break;
        if (errno != EAGAIN && errno != EACCES) {
            close(fd);
            fall_back_closed(upload_state);
            return sizing::gave_up;
        }
        if (fstat(fd, &st) != 0)
            continue;
        if (st.st_size == state_size)
            return sizing::map;
        sleep(1);
    }

    if (fstat(fd, &st) == 0 && st.st_size == state_size) {
        tarvex_box_state_file_lock(fd, F_UNLCK, F_SETLK);
        return sizing::map;
    }
    /* The first sizing gives up only when interrupted and retries every
     * other error: the handle then holds private memory under the number
     * of a descriptor that is already closed, and destroy closes that
     * number again.  A caller that sees fd != -1 cannot tell this case from
     * a mapped file.  Local file systems do not interrupt ftruncate. */
    while (ftruncate(fd, state_size) != 0) {
        if (errno == EINTR) {
            close(fd);
            upload_state->fd = fd;
            fall_back_keeping_fd(upload_state, false);
            return sizing::gave_up;
        }
    }
    /* The probe touches the new file's first page and is dropped at once;
     * ftruncate has already zero-filled the file. */
    upload_state->shared = static_cast<shared_t *>(
        mmap(nullptr, probe_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    munmap(upload_state->shared, probe_size);
    /* A second sizing that fails for good leaves fd -1 with `shared` still
     * at the probe's released address: such a handle is unusable and must
     * not reach destroy, which would free() that address. */
    while (ftruncate(fd, state_size) != 0) {
        if (errno != EINTR) {
            close(fd);
            upload_state->fd = -1;
            return sizing::gave_up;
        }
    }
    tarvex_box_state_file_lock(fd, F_UNLCK, F_SETLK);
    return sizing::map;
}

void map_file(tarvex_box_upload_state_t *upload_state, int fd)
{
    void *mapped = mmap(nullptr, state_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    upload_state->fd = fd;
    /* Only a null address falls back.  A failed mapping leaves MAP_FAILED
     * in `shared` with the file open: the lock still works (it lives on the
     * descriptor), but a caller must compare `shared` with MAP_FAILED
     * before touching the record. */
    if (mapped == nullptr)
        fall_back_keeping_fd(upload_state, true);
    else
        upload_state->shared = static_cast<shared_t *>(mapped);
}

} // namespace

extern "C" void tarvex_i_box_upload_state_create(const char *name,
                                                 tarvex_box_upload_state_t *upload_state)
{
    upload_state->is = true;
    upload_state->fd = -1;
    upload_state->shared = nullptr;

    int fd = tarvex_box_state_file_open_named(tarvex_i_box_upload_path, name);
    if (fd == -1) {
        fall_back_closed(upload_state);
        return;
    }
    if (size_file(upload_state, fd) == sizing::map)
        map_file(upload_state, fd);
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t *upload_state,
                                                         bool blocking)
{
    if (tarvex_box_state_file_lock(upload_state->fd, F_WRLCK, blocking ? F_SETLKW : F_SETLK) != 0)
        return tarvex_box_state_file_lock_error();
    return TARVEX_SUCCESS;
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t *upload_state)
{
    if (tarvex_box_state_file_lock(upload_state->fd, F_UNLCK, F_SETLK) != 0)
        return tarvex_box_state_file_lock_error();
    return TARVEX_SUCCESS;
}

extern "C" void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t *upload_state)
{
    if (upload_state->fd == -1) {
        free(upload_state->shared);
        upload_state->shared = nullptr;
        return;
    }
    /* Only the first 16 bytes are unmapped, which drops the record's first
     * page; the second page of the 4440-byte mapping stays in the address
     * space until the process ends: one page per handle. */
    munmap(upload_state->shared, probe_size);
    upload_state->shared = nullptr;
    close(upload_state->fd);
    upload_state->fd = -1;
}
