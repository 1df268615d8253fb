// Operations: the handle a plug-in answers through.
//
// Every call a plug-in makes on an operation is forwarded to the provider
// table of whoever created it (the server's FTP session, a test driver).
// A provider may leave slots NULL; those calls then get a neutral answer:
//   get_read_range              offset 0, length 0 (nothing more wanted)
//   get_write_range             offset 0, length -1 (a plain store)
//   register_read/_write        an error: there is no data channel
//   get_config_data             success, no data
//   get_update_interval         0 (no progress replies)
//   get_recv_modification_time  success, -1 (unknown)
//   get_block_size              262144 bytes (also when a provider says 0)
//   get_optimal_concurrency     1 (also when a provider says less)
//   every other call            ignored
// A NULL operation behaves like one whose provider has only NULL slots.
//
// Once an operation is cancelled its register_read and register_write
// calls are refused here, before the provider sees them.  A provider's
// function that throws is stopped at this edge: calls with a result return
// an error, the others have no effect.
#include <atomic>
#include <cstdlib>
#include <new>

#include "c_edge.h"
#include "tarvex_gridftp_server.h"

using tarvex_gfs_internal::guarded;
using tarvex_gfs_internal::guarded_result;

struct tarvex_gfs_operation_s {
    // A copy, so that a provider may build its table on the stack.
    tarvex_gfs_operation_provider_t provider{};
    void *ctx = nullptr;
    std::atomic<bool> cancelled{false};
};

namespace {

constexpr tarvex_size_t default_block_size = 262144;
constexpr int default_concurrency = 1;

const tarvex_gfs_operation_provider_t empty_provider = {};

const tarvex_gfs_operation_provider_t &provider_of(tarvex_gfs_operation_t op)
{
    return op != nullptr ? op->provider : empty_provider;
}

void *ctx_of(tarvex_gfs_operation_t op)
{
    return op != nullptr ? op->ctx : nullptr;
}

// The operation whose table function runs on this thread (see
// tarvex_gfs_operation_set_current).
thread_local tarvex_gfs_operation_t current_operation = nullptr;

tarvex_result_t data_error(const char *text)
{
    return tarvex_error_put(tarvex_error_construct_error(&tarvex_i_gfs_module, nullptr,
                                                         TARVEX_GFS_ERROR_DATA, __FILE__,
                                                         __func__, __LINE__, "%s", text));
}

tarvex_result_t no_data_channel()
{
    return data_error("The operation has no data channel.");
}

bool is_cancelled(tarvex_gfs_operation_t op)
{
    return op != nullptr && op->cancelled.load(std::memory_order_acquire);
}

} // namespace

extern "C" {

tarvex_gfs_operation_t tarvex_gfs_operation_create(
    const tarvex_gfs_operation_provider_t *provider, void *ctx)
{
    auto *op = new (std::nothrow) tarvex_gfs_operation_s;
    if (op == nullptr)
        return nullptr;
    if (provider != nullptr)
        op->provider = *provider;
    op->ctx = ctx;
    return op;
}

void tarvex_gfs_operation_destroy(tarvex_gfs_operation_t op)
{
    delete op;
}

void *tarvex_gfs_operation_get_context(tarvex_gfs_operation_t op)
{
    return ctx_of(op);
}

void tarvex_gfs_operation_cancel(tarvex_gfs_operation_t op)
{
    if (op != nullptr)
        op->cancelled.store(true, std::memory_order_release);
}

tarvex_gfs_operation_t tarvex_gfs_operation_set_current(tarvex_gfs_operation_t op)
{
    tarvex_gfs_operation_t previous = current_operation;
    current_operation = op;
    return previous;
}

bool tarvex_gridftp_server_operation_cancelled(tarvex_gfs_operation_t op)
{
    return is_cancelled(op);
}

bool tarvex_gridftp_server_thread_cancelled(void)
{
    return is_cancelled(current_operation);
}

void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op,
                                                  tarvex_result_t result,
                                                  void *session_arg,
                                                  char *username, char *home_dir)
{
    if (auto f = provider_of(op).finished_session_start)
        guarded([&] { f(ctx_of(op), result, session_arg, username, home_dir); });
}

void tarvex_gridftp_server_finished_stat(tarvex_gfs_operation_t op,
                                         tarvex_result_t result,
                                         tarvex_gridftp_server_control_stat_t *stat_array,
                                         int stat_count)
{
    if (auto f = provider_of(op).finished_stat)
        guarded([&] { f(ctx_of(op), result, stat_array, stat_count, false); });
}

void tarvex_gridftp_server_finished_stat_partial(
    tarvex_gfs_operation_t op, tarvex_result_t result,
    tarvex_gridftp_server_control_stat_t *stat_array, int stat_count)
{
    if (auto f = provider_of(op).finished_stat)
        guarded([&] { f(ctx_of(op), result, stat_array, stat_count, true); });
}

void tarvex_gridftp_server_finished_command(tarvex_gfs_operation_t op,
                                            tarvex_result_t result,
                                            char *command_response)
{
    if (auto f = provider_of(op).finished_command)
        guarded([&] { f(ctx_of(op), result, command_response, false); });
}

void tarvex_gridftp_server_intermediate_command(tarvex_gfs_operation_t op,
                                                tarvex_result_t result,
                                                char *command_response)
{
    if (auto f = provider_of(op).finished_command)
        guarded([&] { f(ctx_of(op), result, command_response, true); });
}

void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op, int event_mask,
                                          void *event_arg)
{
    if (auto f = provider_of(op).begin_transfer)
        guarded([&] { f(ctx_of(op), event_mask, event_arg); });
}

void tarvex_gridftp_server_finished_transfer(tarvex_gfs_operation_t op,
                                             tarvex_result_t result)
{
    if (auto f = provider_of(op).finished_transfer)
        guarded([&] { f(ctx_of(op), result); });
}

void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op,
                                          tarvex_off_t *offset, tarvex_off_t *length)
{
    tarvex_off_t o = 0;
    tarvex_off_t l = 0;
    if (auto f = provider_of(op).get_read_range)
        guarded([&] { f(ctx_of(op), &o, &l); });
    if (offset != nullptr)
        *offset = o;
    if (length != nullptr)
        *length = l;
}

void tarvex_gridftp_server_get_write_range(tarvex_gfs_operation_t op,
                                           tarvex_off_t *offset, tarvex_off_t *length)
{
    tarvex_off_t o = 0;
    tarvex_off_t l = -1;
    if (auto f = provider_of(op).get_write_range)
        guarded([&] { f(ctx_of(op), &o, &l); });
    if (offset != nullptr)
        *offset = o;
    if (length != nullptr)
        *length = l;
}

tarvex_result_t tarvex_gridftp_server_register_read(
    tarvex_gfs_operation_t op, tarvex_byte_t *buffer, tarvex_size_t length,
    tarvex_gridftp_server_read_cb_t callback, void *user_arg)
{
    auto f = provider_of(op).register_read;
    if (f == nullptr)
        return no_data_channel();
    if (is_cancelled(op))
        return data_error("The operation was cancelled.");
    return guarded_result(__func__,
                          [&] { return f(ctx_of(op), op, buffer, length, callback, user_arg); });
}

tarvex_result_t tarvex_gridftp_server_register_write(
    tarvex_gfs_operation_t op, tarvex_byte_t *buffer, tarvex_size_t length,
    tarvex_off_t offset, int stripe_ndx, tarvex_gridftp_server_write_cb_t callback,
    void *user_arg)
{
    auto f = provider_of(op).register_write;
    if (f == nullptr)
        return no_data_channel();
    if (is_cancelled(op))
        return data_error("The operation was cancelled.");
    return guarded_result(__func__, [&] {
        return f(ctx_of(op), op, buffer, length, offset, stripe_ndx, callback, user_arg);
    });
}

void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op,
                                              tarvex_off_t length)
{
    if (auto f = provider_of(op).update_bytes_recvd)
        guarded([&] { f(ctx_of(op), length); });
}

void tarvex_gridftp_server_update_bytes_written(tarvex_gfs_operation_t op,
                                                tarvex_off_t offset, tarvex_off_t length)
{
    if (auto f = provider_of(op).update_bytes_written)
        guarded([&] { f(ctx_of(op), offset, length); });
}

tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op,
                                                      const char *key, char **data)
{
    char *value = nullptr;
    tarvex_result_t result = TARVEX_SUCCESS;
    if (auto f = provider_of(op).get_config_data)
        result = guarded_result(__func__, [&] { return f(ctx_of(op), key, &value); });
    if (data != nullptr)
        *data = value;
    else
        free(value);
    return result;
}

void tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op,
                                                const char *cksm_str)
{
    if (auto f = provider_of(op).set_checksum_support)
        guarded([&] { f(ctx_of(op), cksm_str); });
}

void tarvex_gridftp_server_get_update_interval(tarvex_gfs_operation_t op, int *interval)
{
    int value = 0;
    if (auto f = provider_of(op).get_update_interval)
        guarded([&] { f(ctx_of(op), &value); });
    if (interval != nullptr)
        *interval = value;
}

tarvex_result_t tarvex_gridftp_server_get_recv_modification_time(
    tarvex_gfs_operation_t op, time_t *modtime)
{
    time_t value = -1;
    tarvex_result_t result = TARVEX_SUCCESS;
    if (auto f = provider_of(op).get_recv_modification_time)
        result = guarded_result(__func__, [&] { return f(ctx_of(op), &value); });
    if (modtime != nullptr)
        *modtime = value;
    return result;
}

void tarvex_gridftp_server_get_block_size(tarvex_gfs_operation_t op,
                                          tarvex_size_t *block_size)
{
    tarvex_size_t value = default_block_size;
    if (auto f = provider_of(op).get_block_size)
        guarded([&] { f(ctx_of(op), &value); });
    if (value == 0) // plug-ins size buffers by it: never hand out 0
        value = default_block_size;
    if (block_size != nullptr)
        *block_size = value;
}

void tarvex_gridftp_server_get_optimal_concurrency(tarvex_gfs_operation_t op, int *count)
{
    int value = default_concurrency;
    if (auto f = provider_of(op).get_optimal_concurrency)
        guarded([&] { f(ctx_of(op), &value); });
    if (value < 1)
        value = default_concurrency;
    if (count != nullptr)
        *count = value;
}

} // extern "C"
