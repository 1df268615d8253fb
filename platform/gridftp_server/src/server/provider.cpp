#include "provider.h"

#include "session.h"

namespace tarvex_server {

namespace {

PluginCall &call(void *ctx)
{
    return *static_cast<PluginCall *>(ctx);
}

// These run on the plug-in's threads, called through the library's C
// functions: nothing may throw out of them.  A final answer whose handling
// failed (no memory for a copy) still finishes the call, with an error, so
// that the session never waits for an answer that was lost.
tarvex_result_t failed_handling(tarvex_result_t result)
{
    tarvex_error_discard(result);
    return TARVEX_GFS_MALLOC_ERROR(nullptr, ENOMEM);
}

void finished_session_start(void *ctx, tarvex_result_t result, void *session_arg,
                            const char * /*username*/, const char *home_dir)
{
    PluginCall &c = call(ctx);
    c.session_arg = session_arg;
    try {
        c.home_dir = home_dir != nullptr ? home_dir : "";
    } catch (...) {
        c.home_dir.clear(); // the default home then
    }
    c.session->call_finished(c, result);
}

void finished_stat(void *ctx, tarvex_result_t result,
                   tarvex_gridftp_server_control_stat_t *stat_array, int stat_count, bool partial)
{
    PluginCall &c = call(ctx);
    try {
        if (c.on_stat && !c.stat_failed)
            c.on_stat(result, stat_array, stat_count, partial);
    } catch (...) {
        c.stat_failed = true; // this batch is lost: the listing fails
    }
    if (partial)
        return;
    if (c.stat_failed)
        result = failed_handling(result);
    c.session->call_finished(c, result);
}

void finished_command(void *ctx, tarvex_result_t result, const char *response, bool intermediate)
{
    PluginCall &c = call(ctx);
    try {
        if (intermediate) {
            // Progress of a long command (a checksum): a preliminary reply.
            if (response != nullptr && result == TARVEX_SUCCESS)
                c.session->reply_line(113, response);
            else
                tarvex_error_discard(result);
            return;
        }
        c.response = response != nullptr ? response : "";
    } catch (...) {
        if (intermediate)
            return;
        result = failed_handling(result);
    }
    c.session->call_finished(c, result);
}

// A call with a result whose handling failed returns the failure.
template <typename F> tarvex_result_t result_of(F &&f) noexcept
{
    try {
        return f();
    } catch (...) {
        return failed_handling(TARVEX_SUCCESS);
    }
}

void begin_transfer(void *ctx, int, void *)
{
    PluginCall &c = call(ctx);
    if (c.transfer != nullptr)
        c.transfer->begin(true);
}

void finished_transfer(void *ctx, tarvex_result_t result)
{
    PluginCall &c = call(ctx);
    if (c.transfer != nullptr)
        c.transfer->plugin_finished();
    c.session->call_finished(c, result);
}

void get_read_range(void *ctx, tarvex_off_t *offset, tarvex_off_t *length)
{
    PluginCall &c = call(ctx);
    if (c.transfer != nullptr)
        c.transfer->read_range(offset, length);
}

void get_write_range(void *ctx, tarvex_off_t *offset, tarvex_off_t *length)
{
    PluginCall &c = call(ctx);
    if (c.transfer != nullptr)
        c.transfer->write_range(offset, length);
}

tarvex_result_t register_read(void *ctx, tarvex_gfs_operation_t op, tarvex_byte_t *buffer,
                              tarvex_size_t length, tarvex_gridftp_server_read_cb_t cb,
                              void *user_arg)
{
    PluginCall &c = call(ctx);
    if (c.transfer == nullptr || cb == nullptr)
        return data_error("This operation has no data channel.");
    return result_of([&] { return c.transfer->register_read(op, buffer, length, cb, user_arg); });
}

tarvex_result_t register_write(void *ctx, tarvex_gfs_operation_t op, tarvex_byte_t *buffer,
                               tarvex_size_t length, tarvex_off_t, int,
                               tarvex_gridftp_server_write_cb_t cb, void *user_arg)
{
    PluginCall &c = call(ctx);
    if (c.transfer == nullptr || cb == nullptr)
        return data_error("This operation has no data channel.");
    return result_of([&] { return c.transfer->register_write(op, buffer, length, cb, user_arg); });
}

tarvex_result_t get_config_data(void *ctx, const char *key, char **data)
{
    return result_of([&] { return call(ctx).session->config_data(key, data); });
}

void set_checksum_support(void *ctx, const char *s)
{
    try {
        call(ctx).session->set_checksum_support(s);
    } catch (...) {
        // FEAT then names no algorithms; CKSM still works
    }
}

void get_update_interval(void *ctx, int *interval)
{
    *interval = call(ctx).session->update_interval();
}

void get_block_size(void *, tarvex_size_t *block_size)
{
    *block_size = data_block_size;
}

void get_optimal_concurrency(void *, int *count)
{
    *count = 4;
}

} // namespace

const tarvex_gfs_operation_provider_t session_provider = {
    finished_session_start,
    finished_stat,
    finished_command,
    begin_transfer,
    finished_transfer,
    get_read_range,
    get_write_range,
    register_read,
    register_write,
    nullptr, // update_bytes_recvd: the data thread counts bytes itself
    nullptr, // update_bytes_written
    get_config_data,
    set_checksum_support,
    get_update_interval,
    nullptr, // get_recv_modification_time: no client sets one yet
    get_block_size,
    get_optimal_concurrency,
};

} // namespace tarvex_server
