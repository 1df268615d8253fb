// Send (RETR) and receive (STOR).
//
// Several buffers are in flight at once: while the server moves one over
// the network, the next is read from (or written to) the disk.  Completions
// arrive on the server's data thread and are handed to this (the calling)
// thread through a mutex and a condition variable.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "posix.h"
#include "tarvex_result.h"

namespace tarvex_posix {

namespace {

struct Slot;

// What the plug-in's thread and the completions share.
struct Pipeline {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<Slot> slots;
    std::deque<Slot *> free;   // buffers ready for use
    std::deque<Slot *> filled; // receive: completed reads, in order
    int outstanding = 0;
    tarvex_result_t error = TARVEX_SUCCESS; // the first failure

    // The first failure is kept.
    void note_error(tarvex_result_t r) { tarvex::keep_first_failure(error, r); }
    void wait_idle()
    {
        std::unique_lock lock(mu);
        cv.wait(lock, [this] { return outstanding == 0; });
    }
};

struct Slot {
    Pipeline *pipe = nullptr;
    std::vector<tarvex_byte_t> buf;
    tarvex_size_t got = 0;
    tarvex_off_t offset = 0;
    bool eof = false;
};

void setup(Pipeline &p, tarvex_gfs_operation_t op)
{
    tarvex_size_t block = 0;
    int count = 0;
    tarvex_gridftp_server_get_block_size(op, &block);
    tarvex_gridftp_server_get_optimal_concurrency(op, &count);
    constexpr tarvex_size_t kib = 1024;
    block = std::clamp<tarvex_size_t>(block, 64 * kib, 16 * kib * kib);
    count = std::clamp(count, 2, 8);
    p.slots.resize(static_cast<size_t>(count));
    for (Slot &s : p.slots) {
        s.pipe = &p;
        s.buf.resize(block);
        p.free.push_back(&s);
    }
}

// Completions are called by the server, from C: nothing may leave them.
// A slot that cannot be queued (no memory) fails the transfer; the count
// of outstanding buffers still goes down, so that nobody waits for it.
void queue_slot(Pipeline &p, std::deque<Slot *> &queue, Slot *slot)
{
    try {
        queue.push_back(slot);
    } catch (...) {
        p.note_error(exception_result());
    }
}

// A completion wakes the plug-in's thread while it still holds the lock:
// once the last buffer is in, that thread may return and destroy the
// pipeline, its condition variable with it, as soon as the lock is free, so
// a notify after unlocking could touch freed memory (ThreadSanitizer saw it
// in a cancelled store, in 5 runs of 12; none of 12 since).
void write_done(tarvex_gfs_operation_t, tarvex_result_t result, tarvex_byte_t *, tarvex_size_t,
                void *arg)
{
    auto *slot = static_cast<Slot *>(arg);
    Pipeline &p = *slot->pipe;
    {
        std::lock_guard lock(p.mu);
        p.note_error(result);
        queue_slot(p, p.free, slot);
        --p.outstanding;
        p.cv.notify_all();
    }
}

void read_done(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *,
               tarvex_size_t nbytes, tarvex_off_t offset, bool eof, void *arg)
{
    auto *slot = static_cast<Slot *>(arg);
    Pipeline &p = *slot->pipe;
    {
        std::lock_guard lock(p.mu);
        p.note_error(result);
        slot->got = nbytes;
        slot->offset = offset;
        slot->eof = eof;
        queue_slot(p, p.filled, slot);
        --p.outstanding;
        p.cv.notify_all(); // under the lock, as in write_done
    }
    tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(nbytes));
}

// Reads the file from `offset` (length -1: to the end) into the pipeline.
tarvex_result_t send_range(tarvex_gfs_operation_t op, Pipeline &p, int fd, const char *path,
                           tarvex_off_t offset, tarvex_off_t length)
{
    while (length != 0) {
        if (tarvex_gridftp_server_operation_cancelled(op))
            return cancelled_result("the transfer");
        Slot *slot;
        {
            std::unique_lock lock(p.mu);
            p.cv.wait(lock, [&] { return !p.free.empty() || p.error != TARVEX_SUCCESS; });
            if (p.error != TARVEX_SUCCESS)
                return TARVEX_SUCCESS; // reported by the caller
            slot = p.free.front();
            p.free.pop_front();
        }
        size_t want = slot->buf.size();
        if (length > 0 && static_cast<tarvex_off_t>(want) > length)
            want = static_cast<size_t>(length);
        ssize_t n;
        do
            n = pread(fd, slot->buf.data(), want, offset);
        while (n < 0 && errno == EINTR);
        if (n <= 0) {
            std::lock_guard lock(p.mu);
            p.free.push_back(slot);
            return n < 0 ? errno_result(errno, path) : TARVEX_SUCCESS; // 0: end of file
        }
        {
            std::lock_guard lock(p.mu);
            ++p.outstanding;
        }
        tarvex_result_t r = tarvex_gridftp_server_register_write(
            op, slot->buf.data(), static_cast<tarvex_size_t>(n), offset, -1, write_done, slot);
        if (r != TARVEX_SUCCESS) {
            std::lock_guard lock(p.mu);
            --p.outstanding;
            p.free.push_back(slot);
            return r;
        }
        tarvex_gridftp_server_update_bytes_written(op, offset, n);
        offset += n;
        if (length > 0)
            length -= n;
    }
    return TARVEX_SUCCESS;
}

int open_for_read(Session &s, const char *path)
{
    int fd = open_beneath(s, relative(path), O_RDONLY);
    struct stat st{};
    if (fd >= 0 && fstat(fd, &st) == 0 && !S_ISREG(st.st_mode)) {
        close(fd);
        errno = S_ISDIR(st.st_mode) ? EISDIR : EPERM;
        return -1;
    }
    return fd;
}

// A restarted store may continue a file, never start beyond its end: the
// gap would be a hole of zero bytes (a REST of 1 TiB made a 1 TiB sparse
// file of one byte) that no client resuming an upload wants.  Checked
// before anything is opened for writing, so a refusal leaves no file.
tarvex_result_t check_restart(Session &s, const char *path, tarvex_off_t start)
{
    if (start <= 0)
        return TARVEX_SUCCESS;
    int fd = open_beneath(s, relative(path), O_PATH);
    struct stat st{};
    bool ok = fd >= 0 && fstat(fd, &st) == 0;
    int err = errno;
    if (fd >= 0)
        close(fd);
    if (!ok && err != ENOENT)
        return errno_result(err, path);
    tarvex_off_t size = ok ? st.st_size : 0;
    if (start > size)
        return make_error(554, "BAD_RESTART",
                          "GridFTP-Error: the restart offset " + std::to_string(start) +
                              " is beyond the end of " + path + " (" + std::to_string(size) +
                              " bytes).");
    return TARVEX_SUCCESS;
}

void send_file(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg)
{
    auto &s = *static_cast<Session *>(arg);
    const char *path = info->pathname;
    int fd = open_for_read(s, path);
    if (fd < 0) {
        tarvex_gridftp_server_finished_transfer(op, errno_result(errno, path));
        return;
    }
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    Pipeline p;
    setup(p, op);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_result_t r = TARVEX_SUCCESS;
    for (;;) {
        tarvex_off_t offset = 0;
        tarvex_off_t length = 0;
        tarvex_gridftp_server_get_read_range(op, &offset, &length);
        if (length == 0)
            break;
        r = send_range(op, p, fd, path, offset, length);
        if (r != TARVEX_SUCCESS || length < 0)
            break; // -1 was the whole rest of the file
    }
    p.wait_idle();
    close(fd);
    if (r == TARVEX_SUCCESS)
        r = p.error;
    else
        tarvex_error_discard(p.error);
    tarvex_gridftp_server_finished_transfer(op, r);
}

// Registers every free buffer while more data is `wanted`, then waits for
// a completed read.  Sets *finished instead when no buffer is in flight.
Slot *next_filled(tarvex_gfs_operation_t op, Pipeline &p, bool wanted, bool *finished)
{
    std::vector<Slot *> to_register;
    Slot *done = nullptr;
    {
        std::unique_lock lock(p.mu);
        if (wanted && p.error == TARVEX_SUCCESS) {
            while (!p.free.empty()) {
                to_register.push_back(p.free.front());
                p.free.pop_front();
                ++p.outstanding;
            }
        }
        if (to_register.empty()) {
            if (p.filled.empty() && p.outstanding == 0) {
                *finished = true;
                return nullptr;
            }
            p.cv.wait(lock, [&] { return !p.filled.empty() || p.outstanding == 0; });
            if (!p.filled.empty()) {
                done = p.filled.front();
                p.filled.pop_front();
            }
        }
    }
    for (Slot *slot : to_register) {
        tarvex_result_t rr = tarvex_gridftp_server_register_read(
            op, slot->buf.data(), slot->buf.size(), read_done, slot);
        if (rr != TARVEX_SUCCESS) {
            std::lock_guard lock(p.mu);
            --p.outstanding;
            p.free.push_back(slot);
            p.note_error(rr);
        }
    }
    return done;
}

// Writes what a read brought, inside the asked range (`end` -1: no end).
tarvex_result_t write_filled(int fd, const Slot &done, tarvex_off_t end, const char *path)
{
    size_t n = done.got;
    if (end >= 0 && done.offset + static_cast<tarvex_off_t>(n) > end)
        n = done.offset >= end ? 0 : static_cast<size_t>(end - done.offset);
    size_t off = 0;
    while (off < n) {
        ssize_t w = pwrite(fd, done.buf.data() + off, n - off,
                           done.offset + static_cast<tarvex_off_t>(off));
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return errno_result(errno, path);
        off += static_cast<size_t>(w);
    }
    return TARVEX_SUCCESS;
}

// Keeps every free buffer registered until the client's data end, and
// writes each completed read, until no buffer is in flight.  Returns this
// side's failure; the completions' own are in p.error.
tarvex_result_t receive_range(tarvex_gfs_operation_t op, Pipeline &p, int fd, const char *path,
                              tarvex_off_t end)
{
    tarvex_result_t r = TARVEX_SUCCESS;
    bool eof = false;
    for (;;) {
        bool finished = false;
        Slot *done = next_filled(op, p, !eof && r == TARVEX_SUCCESS, &finished);
        if (finished)
            return r;
        if (done == nullptr)
            continue;
        // Write what came, unless something failed.
        bool failed;
        {
            std::lock_guard lock(p.mu);
            failed = p.error != TARVEX_SUCCESS || r != TARVEX_SUCCESS;
        }
        if (!failed && tarvex_gridftp_server_operation_cancelled(op)) {
            r = cancelled_result("the transfer");
            failed = true;
        }
        if (!failed)
            r = write_filled(fd, *done, end, path);
        if (done->eof)
            eof = true;
        std::lock_guard lock(p.mu);
        p.free.push_back(done);
    }
}

// The modification time the client asked for, if it asked.
void set_received_mtime(tarvex_gfs_operation_t op, int fd)
{
    time_t mtime = -1;
    tarvex_gridftp_server_get_recv_modification_time(op, &mtime);
    if (mtime != -1) {
        timespec times[2] = {{0, UTIME_OMIT}, {mtime, 0}};
        futimens(fd, times);
    }
}

void receive_file(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg)
{
    auto &s = *static_cast<Session *>(arg);
    const char *path = info->pathname;
    tarvex_off_t start = 0;
    tarvex_off_t length = -1;
    tarvex_gridftp_server_get_write_range(op, &start, &length);
    tarvex_off_t end = length < 0 ? -1 : start + length;
    tarvex_result_t refused = check_restart(s, path, info->truncate ? 0 : start);
    if (refused != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_transfer(op, refused);
        return;
    }
    int flags = O_WRONLY | O_CREAT | (info->truncate ? O_TRUNC : 0);
    int fd = open_beneath(s, relative(path), flags, 0666);
    if (fd < 0) {
        tarvex_gridftp_server_finished_transfer(op, errno_result(errno, path));
        return;
    }

    Pipeline p;
    setup(p, op);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_result_t r = receive_range(op, p, fd, path, end);
    if (r == TARVEX_SUCCESS && p.error == TARVEX_SUCCESS)
        set_received_mtime(op, fd);
    if (close(fd) != 0 && r == TARVEX_SUCCESS)
        r = errno_result(errno, path);
    if (r == TARVEX_SUCCESS)
        r = p.error;
    else
        tarvex_error_discard(p.error);
    tarvex_gridftp_server_finished_transfer(op, r);
}

} // namespace

void send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg)
{
    guarded_entry([&] { send_file(op, info, arg); },
                  [&](tarvex_result_t r) { tarvex_gridftp_server_finished_transfer(op, r); });
}

void recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg)
{
    guarded_entry([&] { receive_file(op, info, arg); },
                  [&](tarvex_result_t r) { tarvex_gridftp_server_finished_transfer(op, r); });
}

} // namespace tarvex_posix
