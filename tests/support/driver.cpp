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
// The in-memory sink refuses to grow beyond this: huge transfers belong in
// the digest sink.
constexpr uint64_t memory_sink_limit = uint64_t(1) << 30;

// A running 64-bit digest that takes eight bytes per step (FNV-style
// xor-multiply on words), fast enough for multi-gigabyte transfers.  How
// the data is split into pieces does not change the result.
class stream_digest {
public:
    void update(const unsigned char *p, size_t n)
    {
        length_ += n;
        while (n > 0 && tail_len_ > 0) {
            take_tail_byte(*p++);
            n--;
        }
        for (; n >= 8; p += 8, n -= 8) {
            uint64_t w;
            memcpy(&w, p, 8);
            mix(w);
        }
        while (n-- > 0)
            take_tail_byte(*p++);
    }

    uint64_t final() const
    {
        uint64_t h = h_ ^ (tail_ + (uint64_t(tail_len_) << 56));
        h = (h ^ length_) * prime;
        return h ^ (h >> 32);
    }

private:
    static constexpr uint64_t prime = 1099511628211ull;

    void mix(uint64_t w)
    {
        h_ = ((h_ ^ w) * prime);
        h_ ^= h_ >> 29;
    }

    void take_tail_byte(unsigned char c)
    {
        tail_ |= uint64_t(c) << (8 * tail_len_);
        if (++tail_len_ == 8) {
            mix(tail_);
            tail_ = 0;
            tail_len_ = 0;
        }
    }

    uint64_t h_ = 14695981039346656037ull;
    uint64_t tail_ = 0;
    unsigned tail_len_ = 0;
    uint64_t length_ = 0;
};

// A run of the pattern long enough to copy any chunk from any phase.
const std::string &pattern_table()
{
    static const std::string table = [] {
        std::string t(pattern_period + 65536, '\0');
        for (size_t i = 0; i < t.size(); i++)
            t[i] = static_cast<char>(i % pattern_period);
        return t;
    }();
    return table;
}

void fill_pattern(unsigned char *out, uint64_t length, uint64_t start)
{
    const std::string &t = pattern_table();
    while (length > 0) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length, 65536));
        memcpy(out, t.data() + start % pattern_period, n);
        out += n;
        start += n;
        length -= n;
    }
}

std::optional<std::string> copy_text(const char *s)
{
    if (s == nullptr)
        return std::nullopt;
    return std::string(s);
}

stat_entry copy_entry(const tarvex_gridftp_server_control_stat_t &in)
{
    stat_entry e;
    e.mode = in.mode;
    e.nlink = in.nlink;
    e.name = copy_text(in.name);
    e.symlink_target = copy_text(in.symlink_target);
    e.uid = in.uid;
    e.gid = in.gid;
    e.size = in.size;
    e.atime = in.atime;
    e.ctime = in.ctime;
    e.mtime = in.mtime;
    e.dev = in.dev;
    e.ino = in.ino;
    e.link_mode = in.link_mode;
    e.error = in.error;
    return e;
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

const char *to_string(event_kind kind)
{
    switch (kind) {
    case event_kind::session_start: return "session_start";
    case event_kind::stat: return "stat";
    case event_kind::stat_partial: return "stat_partial";
    case event_kind::command: return "command";
    case event_kind::command_intermediate: return "command_intermediate";
    case event_kind::begin_transfer: return "begin_transfer";
    case event_kind::finished_transfer: return "finished_transfer";
    case event_kind::bytes_received: return "bytes_received";
    case event_kind::bytes_written: return "bytes_written";
    case event_kind::checksum_support: return "checksum_support";
    }
    return "?";
}

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
    fill_pattern(reinterpret_cast<unsigned char *>(out.data()), length, start);
    return out;
}

uint64_t digest(std::string_view data)
{
    stream_digest d;
    d.update(reinterpret_cast<const unsigned char *>(data.data()), data.size());
    return d.final();
}

uint64_t pattern_digest(uint64_t length, uint64_t start)
{
    const std::string &t = pattern_table();
    stream_digest d;
    while (length > 0) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length, 65536));
        d.update(reinterpret_cast<const unsigned char *>(t.data()) + start % pattern_period,
                 n);
        start += n;
        length -= n;
    }
    return d.final();
}

// ---- state shared by the driver and its operations ----

struct driver::shared {
    mutable std::mutex m;

    // script
    std::map<std::string, std::string> config;
    std::deque<std::pair<tarvex_off_t, tarvex_off_t>> read_ranges;
    std::deque<std::pair<tarvex_off_t, tarvex_off_t>> write_ranges;
    bool recv_generated = false;
    std::string recv_bytes;
    uint64_t recv_length = 0;
    size_t read_chunk = 0;
    std::optional<std::pair<uint64_t, std::string>> recv_failure;
    time_t modtime = -1;
    int update_interval = 0;
    tarvex_size_t block_size = 262144;
    bool digest_sink = false;
    bool record_progress = true;
    std::chrono::milliseconds timeout{30000};
    std::optional<uint64_t> cancel_after;
    // the operation of the convenience call running now
    tarvex_gfs_operation_t running = nullptr;

    // records
    std::vector<event> events;
    std::string sent;
    std::vector<std::pair<tarvex_off_t, tarvex_size_t>> writes;
    stream_digest sent_hash;
    uint64_t sent_count = 0;
    std::optional<tarvex_off_t> sink_next;
    std::string sink_error;
    uint64_t received = 0;
    int next_op = 1;
    tarvex_result_t last_result = TARVEX_FAILURE;
    uint64_t moved = 0; // bytes moved by the running call (cancel_after)

    void record(event e)
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
        sent_hash = stream_digest();
        sent_count = 0;
        sink_next.reset();
        sink_error.clear();
    }

    // Takes one registered write into the sink (called on the worker).
    void sink(const tarvex_byte_t *buffer, tarvex_size_t length, tarvex_off_t offset)
    {
        std::lock_guard lock(m);
        writes.emplace_back(offset, length);
        sent_count += length;
        auto fault = [&](std::string text) {
            if (sink_error.empty())
                sink_error = std::move(text);
        };
        if (offset < 0) {
            fault("write at negative offset " + std::to_string(offset));
            return;
        }
        if (digest_sink) {
            if (sink_next && *sink_next != offset)
                fault("write at " + std::to_string(offset) + ", expected " +
                      std::to_string(*sink_next));
            sink_next = offset + static_cast<tarvex_off_t>(length);
            sent_hash.update(buffer, length);
            return;
        }
        uint64_t end = static_cast<uint64_t>(offset) + length;
        if (end > memory_sink_limit) {
            fault("write ending at " + std::to_string(end) +
                  " is beyond the in-memory sink; use the digest sink");
            return;
        }
        if (sent.size() < end)
            sent.resize(end, '\0');
        if (length > 0)
            memcpy(sent.data() + offset, buffer, length);
    }
};

// ---- one operation ----

struct driver::operation_state {
    std::shared_ptr<shared> s;
    int id;
    tarvex_gfs_operation_t op = nullptr;

    std::mutex m;
    std::condition_variable cv;
    // final answer
    bool answered = false;
    tarvex_result_t result = TARVEX_FAILURE;
    void *session_arg = nullptr;
    // completions of registered reads and writes, run in order on `worker`
    std::deque<std::function<void()>> tasks;
    bool busy = false;
    bool stopping = false;
    std::thread worker;
    // the client's data
    tarvex_off_t recv_base = 0;
    uint64_t recv_pos = 0;

    operation_state(std::shared_ptr<shared> shared_state, int number);
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
            busy = true;
            lock.unlock();
            task();
            lock.lock();
            busy = false;
            cv.notify_all();
        }
    }

    // Waits until every registered completion has run, then ends the worker.
    void drain()
    {
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return tasks.empty() && !busy; });
        stopping = true;
        cv.notify_all();
        lock.unlock();
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

event make_event(state *o, event_kind kind, tarvex_result_t result = TARVEX_SUCCESS)
{
    event e;
    e.kind = kind;
    e.op = o->id;
    e.result = result;
    e.reply = ftp_reply(result);
    return e;
}

void p_finished_session_start(void *ctx, tarvex_result_t result, void *session_arg,
                              const char *username, const char *home_dir)
{
    event e = make_event(st(ctx), event_kind::session_start, result);
    e.session_arg = session_arg;
    e.text = copy_text(username);
    e.home_dir = copy_text(home_dir);
    st(ctx)->s->record(std::move(e));
    st(ctx)->answer(result, session_arg);
}

void p_finished_stat(void *ctx, tarvex_result_t result,
                     tarvex_gridftp_server_control_stat_t *stat_array, int stat_count,
                     bool partial)
{
    event e = make_event(st(ctx), partial ? event_kind::stat_partial : event_kind::stat,
                         result);
    for (int i = 0; stat_array != nullptr && i < stat_count; i++)
        e.entries.push_back(copy_entry(stat_array[i]));
    st(ctx)->s->record(std::move(e));
    if (!partial)
        st(ctx)->answer(result);
}

void p_finished_command(void *ctx, tarvex_result_t result, const char *response,
                        bool intermediate)
{
    event e = make_event(st(ctx),
                         intermediate ? event_kind::command_intermediate : event_kind::command,
                         result);
    e.text = copy_text(response);
    st(ctx)->s->record(std::move(e));
    if (!intermediate)
        st(ctx)->answer(result);
}

void p_begin_transfer(void *ctx, int event_mask, void *)
{
    event e = make_event(st(ctx), event_kind::begin_transfer);
    e.event_mask = event_mask;
    st(ctx)->s->record(std::move(e));
}

void p_finished_transfer(void *ctx, tarvex_result_t result)
{
    st(ctx)->s->record(make_event(st(ctx), event_kind::finished_transfer, result));
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
    {
        std::lock_guard lock(s.m);
        *offset = 0;
        *length = -1;
        if (!s.write_ranges.empty()) {
            std::tie(*offset, *length) = s.write_ranges.front();
            s.write_ranges.pop_front();
        }
    }
    std::lock_guard lock(st(ctx)->m);
    st(ctx)->recv_base = *offset;
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

void p_update_bytes_recvd(void *ctx, tarvex_off_t length)
{
    auto &s = *st(ctx)->s;
    if (!s.progress_recorded())
        return;
    event e = make_event(st(ctx), event_kind::bytes_received);
    e.length = length;
    s.record(std::move(e));
}

void p_update_bytes_written(void *ctx, tarvex_off_t offset, tarvex_off_t length)
{
    auto &s = *st(ctx)->s;
    if (!s.progress_recorded())
        return;
    event e = make_event(st(ctx), event_kind::bytes_written);
    e.offset = offset;
    e.length = length;
    s.record(std::move(e));
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
    event e = make_event(st(ctx), event_kind::checksum_support);
    e.text = copy_text(cksm_str);
    st(ctx)->s->record(std::move(e));
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

driver::operation_state::operation_state(std::shared_ptr<shared> shared_state, int number)
    : s(std::move(shared_state)), id(number)
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
    uint64_t pos;
    tarvex_off_t base;
    {
        std::lock_guard lock(m);
        pos = recv_pos;
        base = recv_base;
    }
    uint64_t n = 0;
    bool eof = false;
    std::optional<std::string> failure;
    if (tarvex_gridftp_server_operation_cancelled(op)) {
        callback(op, driver_error(cancelled_text), buffer, 0, base + static_cast<tarvex_off_t>(pos),
                 false, user_arg);
        return;
    }
    {
        std::lock_guard lock(s->m);
        uint64_t total = s->recv_generated ? s->recv_length : s->recv_bytes.size();
        uint64_t end = total;
        if (s->recv_failure)
            end = std::min(end, s->recv_failure->first);
        n = std::min<uint64_t>(length, end - std::min(pos, end));
        if (s->read_chunk > 0)
            n = std::min<uint64_t>(n, s->read_chunk);
        if (n == 0 && s->recv_failure && pos >= s->recv_failure->first)
            failure = s->recv_failure->second;
        else if (length == 0 && pos < total)
            // Nothing can land in an empty buffer, and answering "no data,
            // no end" would have the plug-in ask again forever.
            failure = "the client sent more data than the plug-in read (" +
                      std::to_string(total - pos) + " bytes left)";
        // The data ended before the buffer filled (or nothing was left).
        eof = !failure && pos + n == total && (n < length || n == 0);
        if (n > 0) {
            if (s->recv_generated)
                fill_pattern(buffer, n, static_cast<uint64_t>(base) + pos);
            else
                memcpy(buffer, s->recv_bytes.data() + pos, n);
        }
        s->received += n;
    }
    {
        std::lock_guard lock(m);
        recv_pos = pos + n;
    }
    if (!failure)
        moved(n);
    tarvex_result_t outcome = failure ? driver_error(*failure) : TARVEX_SUCCESS;
    callback(op, outcome, buffer, n, base + static_cast<tarvex_off_t>(pos), eof, user_arg);
}

// ---- the driver ----

driver::driver() : s_(std::make_shared<shared>()) {}

driver::~driver() = default;

void driver::set_config(const std::string &key, std::optional<std::string> value)
{
    std::lock_guard lock(s_->m);
    if (value)
        s_->config[key] = std::move(*value);
    else
        s_->config.erase(key);
}

void driver::add_read_range(tarvex_off_t offset, tarvex_off_t length)
{
    std::lock_guard lock(s_->m);
    s_->read_ranges.emplace_back(offset, length);
}

void driver::add_write_range(tarvex_off_t offset, tarvex_off_t length)
{
    std::lock_guard lock(s_->m);
    s_->write_ranges.emplace_back(offset, length);
}

void driver::set_receive_data(std::string data)
{
    std::lock_guard lock(s_->m);
    s_->recv_generated = false;
    s_->recv_bytes = std::move(data);
    s_->recv_length = 0;
}

void driver::set_receive_pattern(uint64_t length)
{
    std::lock_guard lock(s_->m);
    s_->recv_generated = true;
    s_->recv_bytes.clear();
    s_->recv_length = length;
}

void driver::set_read_chunk(size_t max_bytes)
{
    std::lock_guard lock(s_->m);
    s_->read_chunk = max_bytes;
}

void driver::fail_receive_after(uint64_t after_bytes, std::string message)
{
    std::lock_guard lock(s_->m);
    s_->recv_failure.emplace(after_bytes, std::move(message));
}

void driver::set_recv_modification_time(time_t modtime)
{
    std::lock_guard lock(s_->m);
    s_->modtime = modtime;
}

void driver::set_update_interval(int seconds)
{
    std::lock_guard lock(s_->m);
    s_->update_interval = seconds;
}

void driver::set_block_size(tarvex_size_t block_size)
{
    std::lock_guard lock(s_->m);
    s_->block_size = block_size;
}

void driver::use_digest_sink()
{
    std::lock_guard lock(s_->m);
    s_->digest_sink = true;
}

void driver::set_record_progress(bool record)
{
    std::lock_guard lock(s_->m);
    s_->record_progress = record;
}

void driver::set_answer_timeout(std::chrono::milliseconds timeout)
{
    std::lock_guard lock(s_->m);
    s_->timeout = timeout;
}

void driver::cancel_after_bytes(std::optional<uint64_t> bytes)
{
    std::lock_guard lock(s_->m);
    s_->cancel_after = bytes;
}

bool driver::cancel()
{
    std::lock_guard lock(s_->m);
    if (s_->running == nullptr)
        return false;
    tarvex_gfs_operation_cancel(s_->running);
    return true;
}

// Creates an operation, lets `call` hand it to the plug-in and waits for
// the final answer and every outstanding completion.
template <typename Call> tarvex_result_t driver::run(Call &&call, void **session_arg)
{
    int number;
    std::chrono::milliseconds timeout;
    {
        std::lock_guard lock(s_->m);
        number = s_->next_op++;
        timeout = s_->timeout;
        s_->last_result = TARVEX_FAILURE;
    }
    auto o = std::make_unique<operation_state>(s_, number);
    if (o->op == nullptr)
        return TARVEX_FAILURE;
    {
        std::lock_guard lock(s_->m);
        s_->running = o->op;
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
    {
        std::lock_guard lock(s_->m);
        s_->running = nullptr;
    }
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

tarvex_result_t driver::no_function()
{
    std::lock_guard lock(s_->m);
    s_->last_result = TARVEX_FAILURE;
    return TARVEX_FAILURE;
}

void *driver::start(const tarvex_gfs_storage_iface_t *iface, const std::string &username)
{
    if (iface == nullptr || iface->init_func == nullptr) {
        no_function();
        return nullptr;
    }
    std::string name = username;
    std::string host = "127.0.0.1:0";
    void *session = nullptr;
    tarvex_result_t result = run(
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
    if (iface == nullptr || iface->stat_func == nullptr)
        return no_function();
    std::string p = path;
    return run([&](operation_state &o) {
        tarvex_gfs_stat_info_t info{};
        info.file_only = file_only;
        info.pathname = p.data();
        iface->stat_func(o.op, &info, session);
    });
}

tarvex_result_t driver::command(const tarvex_gfs_storage_iface_t *iface, void *session,
                                const tarvex_gfs_command_info_t &info)
{
    if (iface == nullptr || iface->command_func == nullptr)
        return no_function();
    // A copy, so that a plug-in that scribbles on its request cannot change
    // the caller's record.
    tarvex_gfs_command_info_t copy = info;
    return run([&](operation_state &o) { iface->command_func(o.op, &copy, session); });
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
    if (iface == nullptr || iface->send_func == nullptr)
        return no_function();
    s_->reset_sink();
    std::string p = path;
    return run([&](operation_state &o) {
        tarvex_gfs_transfer_info_t info = transfer_info(p);
        iface->send_func(o.op, &info, session);
    });
}

tarvex_result_t driver::recv(const tarvex_gfs_storage_iface_t *iface, void *session,
                             const std::string &path, tarvex_off_t alloc_size, bool truncate)
{
    if (iface == nullptr || iface->recv_func == nullptr)
        return no_function();
    {
        std::lock_guard lock(s_->m);
        s_->received = 0;
    }
    /* A restarted store starts where its first write range does, as the
     * server's REST offset does. */
    tarvex_off_t restart = 0;
    {
        std::lock_guard lock(s_->m);
        if (!truncate && !s_->write_ranges.empty())
            restart = s_->write_ranges.front().first;
    }
    std::string p = path;
    return run([&](operation_state &o) {
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

tarvex_result_t driver::last_result() const
{
    std::lock_guard lock(s_->m);
    return s_->last_result;
}

std::vector<event> driver::events() const
{
    std::lock_guard lock(s_->m);
    return s_->events;
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

std::string driver::sent_data() const
{
    std::lock_guard lock(s_->m);
    return s_->sent;
}

std::vector<std::pair<tarvex_off_t, tarvex_size_t>> driver::sent_writes() const
{
    std::lock_guard lock(s_->m);
    return s_->writes;
}

uint64_t driver::sent_digest() const
{
    std::lock_guard lock(s_->m);
    return s_->digest_sink ? s_->sent_hash.final() : digest(s_->sent);
}

uint64_t driver::sent_bytes() const
{
    std::lock_guard lock(s_->m);
    return s_->sent_count;
}

std::string driver::sink_error() const
{
    std::lock_guard lock(s_->m);
    return s_->sink_error;
}

uint64_t driver::received_bytes() const
{
    std::lock_guard lock(s_->m);
    return s_->received;
}

} // namespace tarvex_test
