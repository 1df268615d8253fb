/*
 * Request pacing shared by every server process of one Box user.  Each
 * kind of traffic has a 24-byte record in a file under the user's home,
 * mapped into every process; before each request a process takes the
 * file's write lock, waits until the spacing has passed since the last
 * request of anyone, stamps the time and lets go (pacing_file.cpp).  With
 * a pacing store in the policy, the store takes the slots of every host
 * instead and the file is what a session falls back to while the store is
 * away (pacing_redis.cpp).
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "box_metrics.h"
#include "config.h"
#include "pacing.h"
#include "retry.h"
#include "state_file.h"

static_assert(sizeof(struct tarvex_box_retry_shared_s) == 24, "pacing record layout");

namespace {

constexpr off_t record_size = sizeof(struct tarvex_box_retry_shared_s);

#define TARVEX_L_BOX_DEBUG(...) TARVEX_BOX_LOG(tarvex_box_pacing_debug_level(), __VA_ARGS__)

struct tarvex_box_retry_shared_s *private_record()
{
    return static_cast<struct tarvex_box_retry_shared_s *>(
        tarvex_box_state_file_private(sizeof(struct tarvex_box_retry_shared_s)));
}

/* A private record for a handle that keeps a descriptor number: destroy
 * unmaps such a record, so it is a mapping too (anonymous, zero-filled). */
struct tarvex_box_retry_shared_s *private_mapped_record(tarvex_box_retry_t *retry)
{
    void *record = tarvex_box_state_file_anonymous(sizeof(struct tarvex_box_retry_shared_s));
    if (record != MAP_FAILED)
        return static_cast<struct tarvex_box_retry_shared_s *>(record);
    /* Out of mappings: forget the descriptor so destroy frees instead. */
    retry->fd = -1;
    return private_record();
}

void *map_record(int fd)
{
    return mmap(nullptr, record_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

enum class setup { map, private_open, private_closed };

/*
 * Brings the file to its size under the lock and clears the stamp.  Whoever
 * finds the lock taken waits for the holder to finish the size, then maps
 * without locking.
 */
setup prepare_file(int fd)
{
    for (;;) {
        struct stat st;
        if (tarvex_box_state_file_lock(fd, F_WRLCK, F_SETLK) != 0) {
            if (fstat(fd, &st) != 0)
                continue;
            if (st.st_size == record_size)
                return setup::map;
            sleep(1);
            continue;
        }
        if (fstat(fd, &st) == 0 && st.st_size == record_size) {
            tarvex_box_state_file_lock(fd, F_UNLCK, F_SETLK);
            return setup::map;
        }
        while (ftruncate(fd, record_size) != 0) {
            /* An interrupted size change gives up on the file. */
            if (errno == EINTR)
                return setup::private_open;
        }
        if (tarvex_box_mapping record{map_record(fd), record_size})
            memset(static_cast<char *>(record.get()) + 8, 0, 16);
        while (ftruncate(fd, record_size) != 0) {
            if (errno != EINTR)
                return setup::private_closed;
        }
        tarvex_box_state_file_lock(fd, F_UNLCK, F_SETLK);
        return setup::map;
    }
}

} // namespace

extern "C" void tarvex_i_box_retry_state_create(const char *name, int per_second,
                                                tarvex_box_retry_t *retry)
{
    /* A rate of 0 is never guarded: it cannot come from the policy, which
     * keeps the current rate for 0. */
    retry->delay = (unsigned)(1000000 / per_second);
    retry->fd = -1;
    retry->shared = nullptr;

    tarvex_box_fd fd = tarvex_box_state_file_open_named(tarvex_i_box_retry_path, name);

    if (!fd) {
        retry->shared = private_record();
    } else {
        switch (prepare_file(fd.get())) {
        case setup::map: {
            /* Only a failed mapping leaves the file open with a private
             * record. */
            void *record = map_record(fd.get());
            retry->fd = fd.get();
            if (record == nullptr || record == MAP_FAILED)
                retry->shared = private_mapped_record(retry);
            else
                retry->shared = static_cast<struct tarvex_box_retry_shared_s *>(record);
            /* A handle that forgot the number leaves the file to close. */
            if (retry->fd != -1)
                fd.release();
            break;
        }
        case setup::private_open:
            retry->fd = fd.close_keeping_number();
            retry->shared = private_mapped_record(retry);
            break;
        case setup::private_closed:
            fd.reset();
            retry->shared = private_record();
            break;
        }
    }
    try {
        retry->store = tarvex_box_pacing_store_open(name);
    } catch (...) {
        /* Out of memory: this host's file paces alone. */
        retry->store = nullptr;
    }
    retry->is = true;
    TARVEX_BOX_TRACE_EXIT();
}

extern "C" void tarvex_i_box_retry_state_destroy(tarvex_box_retry_t *retry)
{
    delete retry->store;
    retry->store = nullptr;
    tarvex_box_state_file_release(&retry->fd, retry->shared, record_size);
    retry->shared = nullptr;
}

extern "C" tarvex_result_t tarvex_i_box_retry_state_lock(tarvex_box_retry_t *retry,
                                                        bool wait)
{
    return tarvex_box_state_file_lock_result(retry->fd, F_WRLCK, wait ? F_SETLKW : F_SETLK);
}

extern "C" tarvex_result_t tarvex_i_box_retry_state_unlock(tarvex_box_retry_t *retry)
{
    return tarvex_box_state_file_lock_result(retry->fd, F_UNLCK, F_SETLK);
}

void (*tarvex_i_box_wait)(unsigned seconds) = [](unsigned seconds) { sleep(seconds); };

extern "C" void tarvex_i_box_retry_delay(uint64_t retry_after, tarvex_box_retry_t *retry)
{
    /* A "Retry-After" holds this process alone, wherever its slots come
     * from: a plain sleep before the slot is taken. */
    if (retry_after != 0) {
        uint64_t seconds = retry_after;
        if (seconds > (uint64_t)tarvex_i_box_max_delay)
            seconds = (uint64_t)tarvex_i_box_max_delay;
        TARVEX_L_BOX_DEBUG("retry_after=%lu sleep=%lu\n", (unsigned long)retry_after,
                           (unsigned long)seconds);
        tarvex_i_box_wait((unsigned)seconds);
        tarvex_box_metric_retry_after(seconds);
    }
    if (retry == nullptr)
        return;
    /* A slot with no stamp (the file's lock failed) has traced its own
     * way out.  Pacers fall back to the file rather than throw; should one
     * throw all the same, the request goes unpaced. */
    try {
        if (tarvex_box_pace(retry).stamp_us != 0)
            TARVEX_BOX_TRACE_EXIT();
    } catch (...) {
    }
}

tarvex_box_pacing_slot_t tarvex_box_pace(tarvex_box_retry_t *retry)
{
    tarvex_box_pacing_s &pacing =
        retry->store != nullptr ? *retry->store : tarvex_box_file_pacing();
    tarvex_box_pacing_slot_t slot = pacing.take_slot(retry);
    tarvex_box_metric_paced(slot);
    return slot;
}
