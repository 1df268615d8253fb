// Streaming a server operation's data into a request body: several
// tarvex_gridftp_server_register_read calls stay in flight over a ring of
// buffers, and curl's read callback is served from them in order.
#include <cstring>
#include <deque>

#include "gridftp_op.h"

namespace tarvex_dsi_rest_internal {

namespace {

struct InPool;

struct InSlot : BufferSlot<InPool> {
    size_t requested = 0;
    size_t got = 0;
    size_t position = 0;
    bool ready = false;
};

struct InPool : BufferPool<InPool, InSlot> {
    std::deque<InSlot *> order; // registered reads, oldest first
    uint64_t received = 0;      // bytes the completions brought
    uint64_t outstanding = 0;   // bytes asked for and not yet completed
    bool eof = false;
};

void take_read(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_size_t nbytes,
               bool eof, InSlot *slot)
{
    InPool *pool = slot->pool;
    std::shared_ptr<InPool> keep;
    std::lock_guard<std::mutex> lock(pool->mutex);
    keep = std::move(slot->keep);
    size_t got = std::min(static_cast<size_t>(nbytes), slot->requested);
    pool->outstanding -= slot->requested;
    pool->received += got;
    slot->got = got;
    slot->position = 0;
    slot->ready = true;
    pool->record(result);
    if (eof)
        pool->eof = true;
    if (!pool->abandoned && got > 0)
        tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(got));
    if (pool->abandoned) {
        // Nobody will read it: back to the idle list at once.
        std::erase(pool->order, slot);
        pool->idle.push_back(slot);
    }
    pool->cond.notify_all();
}

// A registered read's completion, on the operation's thread.
void read_done(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *buffer,
               tarvex_size_t nbytes, tarvex_off_t offset, bool eof, void *user_arg)
{
    (void)buffer;
    (void)offset; // the data are where the buffer was, in registration order
    guard_quiet("a registered read's completion", [&] {
        take_read(op, result, nbytes, eof, static_cast<InSlot *>(user_arg));
    });
}

class GridftpWriter : public Stream {
public:
    explicit GridftpWriter(tarvex_dsi_rest_gridftp_op_arg_t *arg)
        : arg_(arg), pool_(std::make_shared<InPool>())
    {
        pool_->op = arg->op;
    }

    tarvex_result_t read(RequestContext &ctx, char *buffer, size_t length, size_t *produced)
    {
        *produced = 0;
        std::unique_lock<std::mutex> lock(pool_->mutex);
        if (pool_->slots.empty())
            pool_->allocate();
        for (;;) {
            tarvex_result_t result = pool_->take_error();
            if (result == TARVEX_SUCCESS)
                result = register_reads(lock);
            if (result != TARVEX_SUCCESS)
                return result;
            if (pool_->order.empty()) {
                arg_->eof = true; // end of data, or `length` bytes sent
                return TARVEX_SUCCESS;
            }
            InSlot *head = pool_->order.front();
            if (head->ready) {
                size_t n = std::min(length, head->got - head->position);
                memcpy(buffer, head->data.get() + head->position, n);
                head->position += n;
                arg_->offset += static_cast<tarvex_off_t>(n);
                if (head->position == head->got) {
                    pool_->order.pop_front();
                    pool_->idle.push_back(head);
                }
                if (n == 0)
                    continue;
                *produced = n;
                return TARVEX_SUCCESS;
            }
            result = wait_with_progress(ctx, lock, pool_->cond, [this, head] {
                return head->ready || pool_->error != TARVEX_SUCCESS;
            });
            if (result != TARVEX_SUCCESS)
                return result;
        }
    }

    tarvex_result_t finish(RequestContext &ctx, bool transferred) override
    {
        (void)ctx;
        (void)transferred;
        // Reads still registered keep the pool alive on their own; the
        // request does not wait for data nobody will send.
        std::lock_guard<std::mutex> lock(pool_->mutex);
        pool_->abandoned = true;
        for (InSlot *slot : pool_->order)
            if (slot->ready)
                pool_->idle.push_back(slot);
        std::erase_if(pool_->order, [](InSlot *slot) { return slot->ready; });
        return pool_->take_error();
    }

private:
    // Bytes that may still be asked of the operation.
    uint64_t allowance() const
    {
        if (arg_->length < 0)
            return UINT64_MAX;
        uint64_t limit = static_cast<uint64_t>(arg_->length);
        uint64_t taken = pool_->received + pool_->outstanding;
        return taken >= limit ? 0 : limit - taken;
    }

    tarvex_result_t register_reads(std::unique_lock<std::mutex> &lock)
    {
        while (!pool_->eof && !pool_->idle.empty() && allowance() > 0) {
            InSlot *slot = pool_->idle.back();
            pool_->idle.pop_back();
            slot->requested = static_cast<size_t>(
                std::min<uint64_t>(pool_->buffer_size, allowance()));
            slot->got = 0;
            slot->position = 0;
            slot->ready = false;
            slot->keep = pool_;
            pool_->outstanding += slot->requested;
            pool_->order.push_back(slot);
            // Not under the lock: a provider may complete the read at once,
            // on this very thread.
            lock.unlock();
            tarvex_result_t result = tarvex_gridftp_server_register_read(
                pool_->op, slot->data.get(), slot->requested, read_done, slot);
            lock.lock();
            if (result == TARVEX_SUCCESS)
                continue;
            std::shared_ptr<InPool> keep = std::move(slot->keep);
            pool_->outstanding -= slot->requested;
            std::erase(pool_->order, slot);
            pool_->idle.push_back(slot);
            return result;
        }
        return TARVEX_SUCCESS;
    }

    tarvex_dsi_rest_gridftp_op_arg_t *arg_;
    std::shared_ptr<InPool> pool_;
};

} // namespace

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_write_gridftp_op(void *write_callback_arg,
                                                            char *buffer, size_t buffer_length,
                                                            size_t *bytes_written)
{
    *bytes_written = 0;
    return in_gridftp_request(__func__, write_callback_arg, [&](RequestContext &ctx, auto *arg) {
        auto *writer = ctx.stream_of<GridftpWriter, tarvex_dsi_rest_gridftp_op_arg_t>(
            &tarvex_dsi_rest_write_gridftp_op, arg);
        return writer->read(ctx, buffer, buffer_length, bytes_written);
    });
}
