// The scripted operation provider for tests (see driver.h).
#include "driver.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

namespace tarvex_test {

namespace {

constexpr uint64_t pattern_period = 251;
// The in-memory sink refuses to grow beyond this (the byte count goes on).
constexpr uint64_t memory_sink_limit = uint64_t(1) << 30;

void fill_pattern(void *out, uint64_t length, uint64_t start)
{
    auto *p = static_cast<unsigned char *>(out);
    auto byte = static_cast<unsigned char>(start % pattern_period);
    for (uint64_t i = 0; i < length; i++) {
        p[i] = byte;
        byte = byte + 1 == pattern_period ? 0 : byte + 1;
    }
}

std::optional<std::string> copy_text(const char *s)
{
    if (s == nullptr)
        return std::nullopt;
    return std::string(s);
}

// What a registered read or write of a cancelled operation completes with.
const char cancelled_text[] = "the operation was cancelled";

tarvex_result_t driver_error(const std::string &message)
{
    return tarvex_error_put(tarvex_error_construct_error(
        nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, __FILE__, __func__, __LINE__, "%s",
        message.c_str()));
}

} // namespace

std::string ftp_reply(tarvex_result_t result, int default_code)
{
    if (result == TARVEX_SUCCESS)
        return "";
    char *text = tarvex_gfs_error_to_ftp_reply(result, default_code);
    std::string reply = text != nullptr ? text : "";
    free(text);
    return reply;
}

std::string pattern(uint64_t length, uint64_t start)
{
    std::string out(length, '\0');
    fill_pattern(out.data(), length, start);
    return out;
}

// ---- state shared by the driver and its operations ----

struct driver::shared : script, recorded {
    mutable std::mutex m;
    // the client's data: the write range's offset (what has been handed
    // over is `received`)
    tarvex_off_t recv_base = 0;
    uint64_t moved = 0; // bytes moved by the running call (cancel_after)

    void add(event e)
    {
        std::lock_guard lock(m);
        events.push_back(std::move(e));
    }

    bool progress_recorded()
    {
        std::lock_guard lock(m);
        return record_progress;
    }

    void reset_sink()
    {
        std::lock_guard lock(m);
        sent.clear();
        writes.clear();
        sent_count = 0;
    }

    // Takes one registered write into the sink (called on the worker).
    void sink(const tarvex_byte_t *buffer, tarvex_size_t length, tarvex_off_t offset)
    {
        std::lock_guard lock(m);
        writes.emplace_back(offset, length);
        sent_count += length;
        // A write at a negative offset, or past the limit, is left out of
        // the bytes: the test comparing them sees it.
        uint64_t end = static_cast<uint64_t>(offset) + length;
        if (offset < 0 || end > memory_sink_limit)
            return;
        if (sent.size() < end)
            sent.resize(end, '\0');
        if (length > 0)
            memcpy(sent.data() + offset, buffer, length);
    }
};

// ---- one operation ----

struct driver::operation_state {
    std::shared_ptr<shared> s;
    tarvex_gfs_operation_t op = nullptr;

    std::mutex m;
    std::condition_variable cv;
    // final answer
    bool answered = false;
    tarvex_result_t result = TARVEX_FAILURE;
    void *session_arg = nullptr;
    // completions of registered reads and writes, run in order on `worker`
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
    std::thread worker;

    explicit operation_state(std::shared_ptr<shared> shared_state);
    ~operation_state();

    void answer(tarvex_result_t r, void *arg = nullptr)
    {
        std::lock_guard lock(m);
        if (answered)
            return; // a second final answer is recorded as an event only
        answered = true;
        result = r;
        session_arg = arg;
        cv.notify_all();
    }

    bool wait_answer(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m);
        return cv.wait_for(lock, timeout, [&] { return answered; });
    }

    void post(std::function<void()> task)
    {
        std::lock_guard lock(m);
        if (!worker.joinable())
            worker = std::thread([this] { work(); });
        tasks.push_back(std::move(task));
        cv.notify_all();
    }

    void work()
    {
        std::unique_lock lock(m);
        for (;;) {
            cv.wait(lock, [&] { return stopping || !tasks.empty(); });
            if (tasks.empty())
                return;
            auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    // Ends the worker once every registered completion has run (those that
    // completions register included).
    void drain()
    {
        {
            std::lock_guard lock(m);
            stopping = true;
            cv.notify_all();
        }
        if (worker.joinable())
            worker.join();
    }

    // Fills `buffer` with the next piece of the client's data (worker).
    void complete_read(tarvex_byte_t *buffer, tarvex_size_t length,
                       tarvex_gridftp_server_read_cb_t callback, void *user_arg);

    // Counts bytes moved, for the scripted cancel point (worker).
    void moved(uint64_t n)
    {
        bool due;
        {
            std::lock_guard lock(s->m);
            s->moved += n;
            due = s->cancel_after && s->moved >= *s->cancel_after;
        }
        if (due)
            tarvex_gfs_operation_cancel(op);
    }
};

namespace {

using state = driver::operation_state;

state *st(void *ctx)
{
    return static_cast<state *>(ctx);
}

event make_event(event_kind kind, tarvex_result_t result = TARVEX_SUCCESS,
                 const char *text = nullptr)
{
    event e;
    e.kind = kind;
    e.result = result;
    e.reply = ftp_reply(result);
    e.text = copy_text(text);
    return e;
}

void p_finished_session_start(void *ctx, tarvex_result_t result, void *session_arg,
                              const char *username, const char *)
{
    st(ctx)->s->add(make_event(event_kind::session_start, result, username));
    st(ctx)->answer(result, session_arg);
}

void p_finished_stat(void *ctx, tarvex_result_t result,
                     tarvex_gridftp_server_control_stat_t *stat_array, int stat_count, bool partial)
{
    event e = make_event(partial ? event_kind::stat_partial : event_kind::stat, result);
    for (int i = 0; stat_array != nullptr && i < stat_count; i++)
        e.entries.push_back({stat_array[i].mode, copy_text(stat_array[i].name)});
    st(ctx)->s->add(std::move(e));
    if (!partial)
        st(ctx)->answer(result);
}

void p_finished_command(void *ctx, tarvex_result_t result, const char *response, bool intermediate)
{
    st(ctx)->s->add(make_event(
        intermediate ? event_kind::command_intermediate : event_kind::command, result, response));
    if (!intermediate)
        st(ctx)->answer(result);
}

void p_begin_transfer(void *ctx, int, void *)
{
    st(ctx)->s->add(make_event(event_kind::begin_transfer));
}

void p_finished_transfer(void *ctx, tarvex_result_t result)
{
    st(ctx)->s->add(make_event(event_kind::finished_transfer, result));
    st(ctx)->answer(result);
}

void p_get_read_range(void *ctx, tarvex_off_t *offset, tarvex_off_t *length)
{
    auto &s = *st(ctx)->s;
    std::lock_guard lock(s.m);
    *offset = 0;
    *length = 0;
    if (s.read_ranges.empty())
        return;
    std::tie(*offset, *length) = s.read_ranges.front();
    s.read_ranges.pop_front();
}

void p_get_write_range(void *ctx, tarvex_off_t *offset, tarvex_off_t *length)
{
    auto &s = *st(ctx)->s;
    std::lock_guard lock(s.m);
    *offset = 0;
    *length = -1;
    if (!s.write_ranges.empty()) {
        std::tie(*offset, *length) = s.write_ranges.front();
        s.write_ranges.pop_front();
    }
    s.recv_base = *offset;
}

tarvex_result_t p_register_read(void *ctx, tarvex_gfs_operation_t, tarvex_byte_t *buffer,
                                tarvex_size_t length,
                                tarvex_gridftp_server_read_cb_t callback, void *user_arg)
{
    if (callback == nullptr || (buffer == nullptr && length > 0))
        return driver_error("register_read without a buffer or a callback");
    state *o = st(ctx);
    o->post([o, buffer, length, callback, user_arg] {
        o->complete_read(buffer, length, callback, user_arg);
    });
    return TARVEX_SUCCESS;
}

tarvex_result_t p_register_write(void *ctx, tarvex_gfs_operation_t op, tarvex_byte_t *buffer,
                                 tarvex_size_t length, tarvex_off_t offset, int,
                                 tarvex_gridftp_server_write_cb_t callback, void *user_arg)
{
    if (callback == nullptr || (buffer == nullptr && length > 0))
        return driver_error("register_write without a buffer or a callback");
    state *o = st(ctx);
    o->post([o, op, buffer, length, offset, callback, user_arg] {
        bool cancelled = tarvex_gridftp_server_operation_cancelled(op);
        if (!cancelled) {
            o->s->sink(buffer, length, offset);
            o->moved(length);
        }
        callback(op, cancelled ? driver_error(cancelled_text) : TARVEX_SUCCESS, buffer, length,
                 user_arg);
    });
    return TARVEX_SUCCESS;
}

void add_progress(void *ctx, event_kind kind, tarvex_off_t offset, tarvex_off_t length)
{
    auto &s = *st(ctx)->s;
    if (!s.progress_recorded())
        return;
    event e = make_event(kind);
    e.offset = offset;
    e.length = length;
    s.add(std::move(e));
}

void p_update_bytes_recvd(void *ctx, tarvex_off_t length)
{
    add_progress(ctx, event_kind::bytes_received, 0, length);
}

void p_update_bytes_written(void *ctx, tarvex_off_t offset, tarvex_off_t length)
{
    add_progress(ctx, event_kind::bytes_written, offset, length);
}

tarvex_result_t p_get_config_data(void *ctx, const char *key, char **data)
{
    auto &s = *st(ctx)->s;
    std::lock_guard lock(s.m);
    *data = nullptr;
    if (key == nullptr)
        return TARVEX_SUCCESS;
    auto it = s.config.find(key);
    if (it != s.config.end())
        *data = strdup(it->second.c_str());
    return TARVEX_SUCCESS;
}

void p_set_checksum_support(void *ctx, const char *cksm_str)
{
    st(ctx)->s->add(make_event(event_kind::checksum_support, TARVEX_SUCCESS, cksm_str));
}

void p_get_update_interval(void *ctx, int *interval)
{
    std::lock_guard lock(st(ctx)->s->m);
    *interval = st(ctx)->s->update_interval;
}

tarvex_result_t p_get_recv_modification_time(void *ctx, time_t *modtime)
{
    std::lock_guard lock(st(ctx)->s->m);
    *modtime = st(ctx)->s->modtime;
    return TARVEX_SUCCESS;
}

void p_get_block_size(void *ctx, tarvex_size_t *block_size)
{
    std::lock_guard lock(st(ctx)->s->m);
    *block_size = st(ctx)->s->block_size;
}

void p_get_optimal_concurrency(void *, int *count)
{
    *count = 4;
}

const tarvex_gfs_operation_provider_t driver_provider = {
    p_finished_session_start,
    p_finished_stat,
    p_finished_command,
    p_begin_transfer,
    p_finished_transfer,
    p_get_read_range,
    p_get_write_range,
    p_register_read,
    p_register_write,
    p_update_bytes_recvd,
    p_update_bytes_written,
    p_get_config_data,
    p_set_checksum_support,
    p_get_update_interval,
    p_get_recv_modification_time,
    p_get_block_size,
    p_get_optimal_concurrency,
};

} // namespace

driver::operation_state::operation_state(std::shared_ptr<shared> shared_state)
    : s(std::move(shared_state))
{
    op = tarvex_gfs_operation_create(&driver_provider, this);
}

driver::operation_state::~operation_state()
{
    drain();
    tarvex_gfs_operation_destroy(op);
}

void driver::operation_state::complete_read(tarvex_byte_t *buffer, tarvex_size_t length,
                                            tarvex_gridftp_server_read_cb_t callback,
                                            void *user_arg)
{
    std::unique_lock lock(s->m);
    uint64_t pos = s->received;
    tarvex_off_t at = s->recv_base + static_cast<tarvex_off_t>(pos);
    if (tarvex_gridftp_server_operation_cancelled(op)) {
        lock.unlock();
        callback(op, driver_error(cancelled_text), buffer, 0, at, false, user_arg);
        return;
    }
    const auto *bytes = std::get_if<std::string>(&s->receive);
    uint64_t total = bytes != nullptr ? bytes->size() : std::get<uint64_t>(s->receive);
    uint64_t end = total;
    if (s->receive_failure)
        end = std::min(end, s->receive_failure->first);
    uint64_t n = std::min<uint64_t>(length, end - std::min(pos, end));
    if (s->read_chunk > 0)
        n = std::min<uint64_t>(n, s->read_chunk);
    std::optional<std::string> failure;
    if (n == 0 && s->receive_failure && pos >= s->receive_failure->first)
        failure = s->receive_failure->second;
    else if (length == 0 && pos < total)
        // Nothing can land in an empty buffer, and answering "no data, no
        // end" would have the plug-in ask again forever.
        failure = "the client sent more data than the plug-in read (" +
                  std::to_string(total - pos) + " bytes left)";
    // The data ended before the buffer filled (or nothing was left).
    bool eof = !failure && pos + n == total && (n < length || n == 0);
    if (bytes == nullptr)
        fill_pattern(buffer, n, static_cast<uint64_t>(s->recv_base) + pos);
    else if (n > 0)
        memcpy(buffer, bytes->data() + pos, n);
    s->received += n;
    lock.unlock();
    if (!failure)
        moved(n);
    tarvex_result_t outcome = failure ? driver_error(*failure) : TARVEX_SUCCESS;
    callback(op, outcome, buffer, n, at, eof, user_arg);
}

// ---- the driver ----

driver::driver() : s_(std::make_shared<shared>()) {}

driver::~driver() = default;

void driver::set_config(const std::string &key, std::optional<std::string> value)
{
    if (value)
        edit()->config[key] = std::move(*value);
    else
        edit()->config.erase(key);
}

driver::locked<driver::script> driver::edit()
{
    return locked<script>(s_->m, *s_);
}

driver::locked<const driver::recorded> driver::view() const
{
    return locked<const recorded>(s_->m, *s_);
}

// Creates an operation, lets `call` hand it to the plug-in and waits for
// the final answer and every outstanding completion.  Without the plug-in
// function (`present` false) the call fails at once.
template <typename Call>
tarvex_result_t driver::run(bool present, Call &&call, void **session_arg)
{
    std::chrono::milliseconds timeout;
    {
        std::lock_guard lock(s_->m);
        timeout = s_->timeout;
        s_->last_result = TARVEX_FAILURE;
    }
    if (!present)
        return TARVEX_FAILURE;
    auto o = std::make_unique<operation_state>(s_);
    if (o->op == nullptr)
        return TARVEX_FAILURE;
    {
        std::lock_guard lock(s_->m);
        s_->moved = 0;
    }
    // Cancelled before it starts when the script says so at 0 bytes.
    o->moved(0);
    tarvex_gfs_operation_t previous = tarvex_gfs_operation_set_current(o->op);
    call(*o);
    tarvex_gfs_operation_set_current(previous);
    bool answered = o->wait_answer(timeout);
    if (answered)
        o->drain();
    if (!answered) {
        // The plug-in may still answer later: the operation must outlive
        // it, so it is left allocated on purpose.
        static_cast<void>(o.release());
        return TARVEX_FAILURE;
    }
    if (session_arg != nullptr)
        *session_arg = o->session_arg;
    std::lock_guard lock(s_->m);
    s_->last_result = o->result;
    return o->result;
}

void *driver::start(const tarvex_gfs_storage_iface_t *iface, const std::string &username)
{
    std::string name = username;
    std::string host = "127.0.0.1:0";
    void *session = nullptr;
    tarvex_result_t result = run(
        iface != nullptr && iface->init_func != nullptr,
        [&](operation_state &o) {
            tarvex_gfs_session_info_t info{};
            info.username = name.data();
            info.host_id = host.data();
            iface->init_func(o.op, &info);
        },
        &session);
    return result == TARVEX_SUCCESS ? session : nullptr;
}

tarvex_result_t driver::stat(const tarvex_gfs_storage_iface_t *iface, void *session,
                             const std::string &path, bool file_only)
{
    std::string p = path;
    return run(iface != nullptr && iface->stat_func != nullptr, [&](operation_state &o) {
        tarvex_gfs_stat_info_t info{};
        info.file_only = file_only;
        info.pathname = p.data();
        iface->stat_func(o.op, &info, session);
    });
}

tarvex_result_t driver::command(const tarvex_gfs_storage_iface_t *iface, void *session,
                                const tarvex_gfs_command_info_t &info)
{
    // A copy, so that a plug-in that scribbles on its request cannot change
    // the caller's record.
    tarvex_gfs_command_info_t copy = info;
    return run(iface != nullptr && iface->command_func != nullptr,
               [&](operation_state &o) { iface->command_func(o.op, &copy, session); });
}

namespace {

tarvex_gfs_transfer_info_t transfer_info(std::string &path)
{
    tarvex_gfs_transfer_info_t info{};
    info.pathname = path.data();
    info.partial_offset = 0;
    info.partial_length = -1;
    info.nstreams = 1;
    info.node_count = 1;
    info.stripe_count = 1;
    return info;
}

} // namespace

tarvex_result_t driver::send(const tarvex_gfs_storage_iface_t *iface, void *session,
                             const std::string &path)
{
    s_->reset_sink();
    std::string p = path;
    return run(iface != nullptr && iface->send_func != nullptr, [&](operation_state &o) {
        tarvex_gfs_transfer_info_t info = transfer_info(p);
        iface->send_func(o.op, &info, session);
    });
}

tarvex_result_t driver::recv(const tarvex_gfs_storage_iface_t *iface, void *session,
                             const std::string &path, tarvex_off_t alloc_size, bool truncate)
{
    /* A restarted store starts where its first write range does, as the
     * server's REST offset does. */
    tarvex_off_t restart = 0;
    {
        std::lock_guard lock(s_->m);
        s_->received = 0;
        s_->recv_base = 0;
        if (!truncate && !s_->write_ranges.empty())
            restart = s_->write_ranges.front().first;
    }
    std::string p = path;
    return run(iface != nullptr && iface->recv_func != nullptr, [&](operation_state &o) {
        tarvex_gfs_transfer_info_t info = transfer_info(p);
        info.alloc_size = alloc_size;
        info.truncate = truncate;
        info.partial_offset = restart;
        iface->recv_func(o.op, &info, session);
    });
}

void driver::destroy(const tarvex_gfs_storage_iface_t *iface, void *session)
{
    if (iface != nullptr && iface->destroy_func != nullptr)
        iface->destroy_func(session);
}

std::vector<event> driver::events(event_kind kind) const
{
    std::lock_guard lock(s_->m);
    std::vector<event> out;
    for (const auto &e : s_->events)
        if (e.kind == kind)
            out.push_back(e);
    return out;
}

void driver::clear_events()
{
    std::lock_guard lock(s_->m);
    s_->events.clear();
}

} // namespace tarvex_test
