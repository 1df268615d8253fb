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

#include <utility>

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
    upload_state->shared = static_cast<shared_t *>(tarvex_box_state_file_private(sizeof(shared_t)));
}

/*
 * Private memory for a handle that keeps a descriptor number.  Destroy
 * unmaps such a block, so it is an anonymous (zero-filled) mapping; should
 * that fail too, the number is given up so that destroy frees instead.
 * False then: a descriptor still open is the caller's to close.
 */
bool fall_back_keeping_fd(tarvex_box_upload_state_t *upload_state)
{
    void *block = tarvex_box_state_file_anonymous(sizeof(shared_t));
    if (block != MAP_FAILED) {
        upload_state->shared = static_cast<shared_t *>(block);
        return true;
    }
    fall_back_closed(upload_state);
    return false;
}

enum class sizing { map, gave_up };

/*
 * Brings a new file to its size under the lock.  Whoever finds the lock
 * taken waits in one-second steps until the holder has finished the size,
 * then maps without locking.  A lock that fails for another reason than
 * being held (no lock support on the file system) gives up on the file
 * rather than wait for a size that nobody will set.
 */
sizing size_file(tarvex_box_upload_state_t *upload_state, tarvex_box_fd &fd)
{
    struct stat st;
    for (;;) {
        if (tarvex_box_state_file_lock(fd.get(), F_WRLCK, F_SETLK) == 0)
            break;
        if (errno != EAGAIN && errno != EACCES) {
            fd.reset();
            fall_back_closed(upload_state);
            return sizing::gave_up;
        }
        if (fstat(fd.get(), &st) != 0)
            continue;
        if (st.st_size == state_size)
            return sizing::map;
        sleep(1);
    }

    if (fstat(fd.get(), &st) == 0 && st.st_size == state_size) {
        tarvex_box_state_file_lock(fd.get(), F_UNLCK, F_SETLK);
        return sizing::map;
    }
    /* The first sizing gives up only when interrupted and retries every
     * other error.  Local file systems do not interrupt ftruncate. */
    while (ftruncate(fd.get(), state_size) != 0) {
        if (errno == EINTR) {
            upload_state->fd = fd.close_keeping_number();
            fall_back_keeping_fd(upload_state);
            return sizing::gave_up;
        }
    }
    /* The probe touches the new file's first page and is dropped at once;
     * ftruncate has already zero-filled the file. */
    {
        tarvex_box_mapping probe(
            mmap(nullptr, probe_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0),
            probe_size);
        upload_state->shared = static_cast<shared_t *>(probe.get());
    }
    /* A second sizing that fails for good leaves fd -1 with `shared` still
     * at the probe's released address: such a handle is unusable and must
     * not reach destroy, which would free() that address. */
    while (ftruncate(fd.get(), state_size) != 0) {
        if (errno != EINTR) {
            fd.reset();
            upload_state->fd = -1;
            return sizing::gave_up;
        }
    }
    tarvex_box_state_file_lock(fd.get(), F_UNLCK, F_SETLK);
    return sizing::map;
}

void map_file(tarvex_box_upload_state_t *upload_state, tarvex_box_fd fd)
{
    void *mapped = mmap(nullptr, state_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    upload_state->fd = fd.get();
    /* Only a null address falls back.  A failed mapping leaves MAP_FAILED
     * in `shared` with the file open: the lock still works (it lives on the
     * descriptor), but a caller must compare `shared` with MAP_FAILED
     * before touching the record. */
    if (mapped == nullptr) {
        if (!fall_back_keeping_fd(upload_state))
            return; /* the file closes here */
    } else {
        upload_state->shared = static_cast<shared_t *>(mapped);
    }
    fd.release();
}

} // namespace

extern "C" void tarvex_i_box_upload_state_create(const char *name,
                                                 tarvex_box_upload_state_t *upload_state)
{
    upload_state->is = true;
    upload_state->fd = -1;
    upload_state->shared = nullptr;

    tarvex_box_fd fd = tarvex_box_state_file_open_named(tarvex_i_box_upload_path, name);
    if (!fd) {
        fall_back_closed(upload_state);
        return;
    }
    if (size_file(upload_state, fd) == sizing::map)
        map_file(upload_state, std::move(fd));
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t *upload_state,
                                                         bool blocking)
{
    return tarvex_box_state_file_lock_result(upload_state->fd, F_WRLCK,
                                             blocking ? F_SETLKW : F_SETLK);
}

extern "C" tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t *upload_state)
{
    return tarvex_box_state_file_lock_result(upload_state->fd, F_UNLCK, F_SETLK);
}

extern "C" void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t *upload_state)
{
    tarvex_box_state_file_release(&upload_state->fd, upload_state->shared, probe_size);
    upload_state->shared = nullptr;
}
