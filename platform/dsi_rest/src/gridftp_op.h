/*
 * Shared by the two directions of streaming between a request body and a
 * server operation (gridftp_read.cpp, gridftp_write.cpp).
 *
 * Both keep several buffers in flight so that the network and the client's
 * data channel work at the same time.  Completions arrive on the
 * operation's threads; a buffer pool is shared between the request and its
 * outstanding completions, and whoever lets go last frees it, so that a
 * request that ends early (a failure, a time-out) never leaves the
 * operation writing into freed memory.
 */
#ifndef TARVEX_DSI_REST_GRIDFTP_OP_H
#define TARVEX_DSI_REST_GRIDFTP_OP_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "dsi_rest_internal.h"
#include "tarvex_result.h"

namespace tarvex_dsi_rest_internal {

constexpr size_t default_buffer_size = 1u << 20;
constexpr size_t min_buffer_size = 64u << 10;
constexpr size_t max_buffer_size = 8u << 20;
constexpr int default_buffers = 4;
constexpr int max_buffers = 8;
// How often a wait on the operation lets the idle time-out have its say.
constexpr auto progress_interval = std::chrono::seconds(1);

inline void buffer_geometry(tarvex_gfs_operation_t op, size_t *size, int *count)
{
    tarvex_size_t block = 0;
    tarvex_gridftp_server_get_block_size(op, &block);
    *size = block == 0 ? default_buffer_size
                       : std::min(std::max(static_cast<size_t>(block), min_buffer_size),
                                  max_buffer_size);
    int concurrency = 0;
    tarvex_gridftp_server_get_optimal_concurrency(op, &concurrency);
    *count = std::min(std::max(concurrency, default_buffers), max_buffers);
}

// Waits on `cond` until `done` holds; every interval without it, the
// caller's progress callback runs (unlocked) and may end the wait.
template <class Done>
tarvex_result_t wait_with_progress(RequestContext &ctx, std::unique_lock<std::mutex> &lock,
                                   std::condition_variable &cond, Done done)
{
    while (!done()) {
        if (cond.wait_for(lock, progress_interval) != std::cv_status::timeout)
            continue;
        if (done())
            break;
        lock.unlock();
        tarvex_result_t result = ctx.report_progress();
        lock.lock();
        if (result != TARVEX_SUCCESS)
            return result;
    }
    return TARVEX_SUCCESS;
}

/* A buffer of either direction; `keep` holds the pool while the operation
 * has the buffer. */
template <class Pool>
struct BufferSlot {
    Pool *pool = nullptr;
    std::unique_ptr<tarvex_byte_t[]> data;
    std::shared_ptr<Pool> keep;
};

/* What the request and the completions of either direction share: the
 * buffers, the lock, and the first failure.  `Pool` is the direction's own
 * pool, derived from this one. */
template <class Pool, class Slot>
struct BufferPool {
    std::mutex mutex;
    std::condition_variable cond;
    tarvex_gfs_operation_t op = nullptr;
    size_t buffer_size = 0;
    std::vector<std::unique_ptr<Slot>> slots;
    std::vector<Slot *> idle;
    tarvex_result_t error = TARVEX_SUCCESS;
    bool error_taken = false;
    bool abandoned = false; // the request is over; nobody waits any more

    // Called with the mutex held, before the first buffer is needed.
    void allocate()
    {
        int count = 0;
        buffer_geometry(op, &buffer_size, &count);
        for (int i = 0; i < count; i++) {
            auto slot = std::make_unique<Slot>();
            slot->pool = static_cast<Pool *>(this);
            slot->data.reset(new tarvex_byte_t[buffer_size]);
            idle.push_back(slot.get());
            slots.push_back(std::move(slot));
        }
    }

    // An error nobody took (a completion failed after the request was
    // over) goes with the pool, not left behind in the error table.
    ~BufferPool()
    {
        if (!error_taken)
            tarvex_error_discard(error);
    }

    // Called with the mutex held: a completion's first failure is kept;
    // later ones (other buffers in flight failing too) are dropped, as
    // nobody will ask for them.
    void record(tarvex_result_t result) { tarvex::keep_first_failure(error, result); }

    // Called with the mutex held.  A completion's error is handed out once.
    tarvex_result_t take_error()
    {
        if (error_taken)
            return TARVEX_SUCCESS;
        if (error != TARVEX_SUCCESS)
            error_taken = true;
        return error;
    }
};

// The frame of the two callbacks that stream a server operation's data:
// exceptions stopped, and an argument error naming `function` without a
// request or an operation record; `body` takes both.
template <class Body>
tarvex_result_t in_gridftp_request(const char *function, void *arg, Body &&body) noexcept
{
    return guard_result(function, [&] {
        RequestContext *ctx = RequestContext::current();
        auto *op_arg = static_cast<tarvex_dsi_rest_gridftp_op_arg_t *>(arg);
        if (ctx == nullptr || op_arg == nullptr)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                         "%s needs a request and an operation record", function);
        return body(*ctx, op_arg);
    });
}

} // namespace tarvex_dsi_rest_internal

#endif
