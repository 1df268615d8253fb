// Streaming a response body into a server operation: the body is copied
// into a pool of buffers, each handed to the operation with
// tarvex_gridftp_server_register_write at its file offset, several at once.
#include <cstring>

#include "gridftp_op.h"

namespace tarvex_dsi_rest_internal {

namespace {

struct OutPool;

struct OutSlot : BufferSlot<OutPool> {
    size_t used = 0;
    tarvex_off_t offset = 0;
};

struct OutPool : BufferPool<OutPool, OutSlot> {
    int in_flight = 0;
};

void take_write(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_size_t nbytes,
                OutSlot *slot)
{
    OutPool *pool = slot->pool;
    std::shared_ptr<OutPool> keep; // released after the lock below
    std::lock_guard<std::mutex> lock(pool->mutex);
    keep = std::move(slot->keep);
    pool->record(result);
    if (result == TARVEX_SUCCESS && !pool->abandoned) {
        tarvex_gridftp_server_update_bytes_written(op, slot->offset,
                                                   static_cast<tarvex_off_t>(nbytes));
    }
    pool->in_flight--;
    pool->idle.push_back(slot);
    pool->cond.notify_all();
}

// A registered write's completion, on the operation's thread.
void write_done(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *buffer,
                tarvex_size_t nbytes, void *user_arg)
{
    (void)buffer;
    guard_quiet("a registered write's completion", [&] {
        take_write(op, result, nbytes, static_cast<OutSlot *>(user_arg));
    });
}

class GridftpReader : public Stream {
public:
    explicit GridftpReader(tarvex_dsi_rest_gridftp_op_arg_t *arg)
        : arg_(arg), pool_(std::make_shared<OutPool>())
    {
        pool_->op = arg->op;
    }

    tarvex_result_t write(RequestContext &ctx, const tarvex_byte_t *data, size_t length)
    {
        while (length > 0) {
            if (filling_ == nullptr) {
                tarvex_result_t result = take_idle(ctx);
                if (result != TARVEX_SUCCESS)
                    return result;
            }
            size_t n = std::min(length, pool_->buffer_size - filling_->used);
            memcpy(filling_->data.get() + filling_->used, data, n);
            filling_->used += n;
            data += n;
            length -= n;
            if (filling_->used == pool_->buffer_size) {
                tarvex_result_t result = submit();
                if (result != TARVEX_SUCCESS)
                    return result;
            }
        }
        std::lock_guard<std::mutex> lock(pool_->mutex);
        return pool_->take_error();
    }

    tarvex_result_t finish(RequestContext &ctx, bool transferred) override
    {
        bool complete = transferred && ctx.status < 300;
        tarvex_result_t result = TARVEX_SUCCESS;
        if (filling_ != nullptr && filling_->used > 0 && complete)
            result = submit();
        std::unique_lock<std::mutex> lock(pool_->mutex);
        if (filling_ != nullptr) {
            pool_->idle.push_back(filling_);
            filling_ = nullptr;
        }
        // The request returns only once the operation is done with every
        // buffer, unless the idle time-out gives up on it first.
        tarvex_result_t waited = wait_with_progress(ctx, lock, pool_->cond,
                                                    [this] { return pool_->in_flight == 0; });
        pool_->abandoned = true;
        if (result == TARVEX_SUCCESS)
            result = waited;
        if (result == TARVEX_SUCCESS)
            result = pool_->take_error();
        if (result == TARVEX_SUCCESS && complete)
            arg_->eof = true;
        return result;
    }

private:
    tarvex_result_t take_idle(RequestContext &ctx)
    {
        std::unique_lock<std::mutex> lock(pool_->mutex);
        if (pool_->slots.empty())
            pool_->allocate();
        tarvex_result_t result = wait_with_progress(ctx, lock, pool_->cond, [this] {
            return !pool_->idle.empty() || pool_->error != TARVEX_SUCCESS;
        });
        if (result == TARVEX_SUCCESS)
            result = pool_->take_error();
        if (result != TARVEX_SUCCESS)
            return result;
        filling_ = pool_->idle.back();
        pool_->idle.pop_back();
        filling_->used = 0;
        return TARVEX_SUCCESS;
    }

    tarvex_result_t submit()
    {
        OutSlot *slot = filling_;
        filling_ = nullptr;
        slot->offset = arg_->offset;
        {
            std::lock_guard<std::mutex> lock(pool_->mutex);
            pool_->in_flight++;
            slot->keep = pool_;
        }
        // Not under the lock: a provider may complete the write at once,
        // on this very thread.
        tarvex_result_t result = tarvex_gridftp_server_register_write(
            pool_->op, slot->data.get(), slot->used, slot->offset, -1, write_done, slot);
        if (result == TARVEX_SUCCESS) {
            arg_->offset += static_cast<tarvex_off_t>(slot->used);
            return TARVEX_SUCCESS;
        }
        std::shared_ptr<OutPool> keep;
        std::lock_guard<std::mutex> lock(pool_->mutex);
        keep = std::move(slot->keep);
        pool_->in_flight--;
        pool_->idle.push_back(slot);
        return result;
    }

    tarvex_dsi_rest_gridftp_op_arg_t *arg_;
    std::shared_ptr<OutPool> pool_;
    OutSlot *filling_ = nullptr;
};

GridftpReader *gridftp_reader(RequestContext &ctx, void *arg)
{
    return ctx.stream_of<GridftpReader, tarvex_dsi_rest_gridftp_op_arg_t>(
        &tarvex_dsi_rest_read_gridftp_op, arg);
}

} // namespace

void prepare_gridftp_reader(RequestContext &ctx, void *arg)
{
    if (arg != nullptr)
        gridftp_reader(ctx, arg);
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_read_gridftp_op(void *read_callback_arg,
                                                           void *buffer, size_t buffer_length)
{
    return in_gridftp_request(__func__, read_callback_arg, [&](RequestContext &ctx, auto *arg) {
        return gridftp_reader(ctx, arg)->write(ctx, static_cast<const tarvex_byte_t *>(buffer),
                                               buffer_length);
    });
}
