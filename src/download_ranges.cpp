/*
 * A large download in several ranges at once (download_ranges.h).
 *
 * Threads: the operation's own thread hands the ranges to the data channel
 * in order; one thread per stream fetches them; the data channel's
 * completions come on the server's threads.  They meet in one record under
 * one mutex.  A registered write holds the record until it completes, so
 * that a data channel that never completes a write cannot leave the
 * server writing from freed memory.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "send"
#include "config.h"
#include "download_ranges.h"
#include "range_answer.h"
#include "request.h"
#include "send.h"
#include "tarvex_box_raii.h"
#include "tarvex_result.h"

int64_t tarvex_i_box_streams_minimum = int64_t{64} << 20;
int64_t tarvex_i_box_stream_range_min = int64_t{8} << 20;
int64_t tarvex_i_box_stream_range_max = int64_t{16} << 20;

namespace {

/* How often a wait looks at the operation's cancellation. */
constexpr auto tarvex_l_box_tick = std::chrono::seconds(1);
/* The least a range hands to the data channel at a time before its last
 * bytes: fewer, larger writes for the server's data thread. */
constexpr size_t tarvex_l_box_piece_min = size_t{256} << 10;

/* One range of the file and where it is on its way. */
struct tarvex_l_box_span {
    tarvex_off_t first = 0;
    size_t length = 0;
    tarvex_byte_t *buffer = nullptr; /* while it is fetched and handed on */
    int slot = -1;
    size_t filled = 0;   /* bytes received into the buffer */
    size_t handed = 0;   /* bytes registered with the data channel */
    size_t written = 0;  /* bytes the data channel has taken */
};

/* What the threads share; held by every write still out. */
struct tarvex_l_box_flight_state {
    std::mutex mutex;
    std::condition_variable cond;
    tarvex_gfs_operation_t op = nullptr;
    std::vector<tarvex_l_box_span> ranges;
    std::vector<tarvex_box_bytes> buffers;
    std::vector<int> free_slots;
    size_t buffer_size = 0;
    size_t next = 0;       /* the first range no stream has taken */
    size_t head = 0;       /* the first range not wholly handed on */
    int writes_out = 0;
    std::chrono::steady_clock::time_point last_written;
    tarvex::Result failure;
    std::atomic<bool> stopping{false};
    bool abandoned = false; /* the transfer was answered without some writes */

    /* The first failure is the transfer's; it stops everything.  Called
     * with the mutex held. */
    void fail(tarvex_result_t result)
    {
        tarvex::Result failed(result);
        if (failure.ok())
            failure = std::move(failed);
        stopping = true;
        cond.notify_all();
    }
};

/* One registered write. */
struct tarvex_l_box_write {
    std::shared_ptr<tarvex_l_box_flight_state> state;
    size_t range;
    tarvex_off_t offset;
    size_t length;
};

/* A write's completion, on a thread of the server: a range wholly taken
 * frees its buffer for the next range. */
void tarvex_l_box_written(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *,
                          tarvex_size_t, void *user_arg)
{
    std::unique_ptr<tarvex_l_box_write> write(static_cast<tarvex_l_box_write *>(user_arg));
    tarvex_l_box_flight_state &state = *write->state;
    std::lock_guard<std::mutex> lock(state.mutex);
    state.last_written = std::chrono::steady_clock::now();
    if (result != TARVEX_SUCCESS) {
        state.fail(result);
    } else if (!state.abandoned) {
        tarvex_gridftp_server_update_bytes_written(op, write->offset,
                                                   static_cast<tarvex_off_t>(write->length));
        tarvex_l_box_span &range = state.ranges[write->range];
        range.written += write->length;
        if (range.written == range.length) {
            state.free_slots.push_back(range.slot);
            range.buffer = nullptr;
        }
    }
    state.writes_out--;
    state.cond.notify_all();
}

/* One range's request, as a stream's thread makes it. */
struct tarvex_l_box_fetch {
    tarvex_l_box_flight_state *state;
    size_t index;
    uint64_t size;
    tarvex_box_request_t *request;
    tarvex_box_range_answer answer;
    char value[64];
    tarvex_dsi_rest_key_value_t header;
};

/* Before each attempt: the bytes of the range not yet received. */
tarvex_result_t tarvex_l_box_ask_rest(tarvex_box_request_t *request, void *arg)
{
    auto *fetch = static_cast<tarvex_l_box_fetch *>(arg);
    const tarvex_l_box_span &range = fetch->state->ranges[fetch->index];
    /* `filled` moves only on this thread. */
    tarvex_off_t from = range.first + static_cast<tarvex_off_t>(range.filled);
    tarvex_off_t last = range.first + static_cast<tarvex_off_t>(range.length) - 1;
    snprintf(fetch->value, sizeof(fetch->value), "bytes=%ld-%ld", static_cast<long>(from),
             static_cast<long>(last));
    fetch->header = {"Range", fetch->value};
    request->headers = &fetch->header;
    request->header_count = 1;
    fetch->answer.reset(from, last - from + 1);
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_changed()
{
    return TARVEX_BOX_GENERIC_ERROR(
        "%s", "The file changed on Box while it was being sent: its size is not the one "
              "listed.");
}

/* The read callback: the range's bytes of the answer into its buffer. */
tarvex_result_t tarvex_l_box_take_range(void *arg, void *buffer, size_t length)
{
    auto *fetch = static_cast<tarvex_l_box_fetch *>(arg);
    const char *data = static_cast<const char *>(buffer);
    tarvex_result_t result = fetch->answer.take(&data, &length);
    if (result != TARVEX_SUCCESS)
        return result;
    if (fetch->answer.total >= 0 && static_cast<uint64_t>(fetch->answer.total) != fetch->size)
        return tarvex_l_box_changed();
    if (length == 0)
        return TARVEX_SUCCESS;
    tarvex_l_box_flight_state &state = *fetch->state;
    tarvex_l_box_span &range = state.ranges[fetch->index];
    memcpy(range.buffer + range.filled, data, length);
    std::lock_guard<std::mutex> lock(state.mutex);
    range.filled += length;
    if (fetch->index == state.head)
        state.cond.notify_all();
    return TARVEX_SUCCESS;
}

bool tarvex_l_box_give_up(void *arg)
{
    auto *state = static_cast<tarvex_l_box_flight_state *>(arg);
    return state->stopping || tarvex_gridftp_server_operation_cancelled(state->op);
}

class tarvex_l_box_range_flight {
public:
    tarvex_l_box_range_flight(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                              const char *location, uint64_t size, int attempts)
        : state_(std::make_shared<tarvex_l_box_flight_state>()), box_(box),
          location_(location), size_(size), attempts_(attempts)
    {
        state_->op = op;
    }
    ~tarvex_l_box_range_flight() { stop(); }
    tarvex_l_box_range_flight(const tarvex_l_box_range_flight &) = delete;
    tarvex_l_box_range_flight &operator=(const tarvex_l_box_range_flight &) = delete;

    /* Cuts bytes `offset` to the end into ranges. */
    void plan(tarvex_off_t offset);
    /* Up to `streams` fetching threads; false when none could start. */
    bool start(int streams);
    /* Hands the ranges on in order as they arrive; the transfer's result. */
    tarvex_result_t run();

private:
    void fetch_ranges();
    tarvex_result_t fetch(size_t index);
    bool hand_on(std::unique_lock<std::mutex> &lock);
    void wait_for_writes(std::unique_lock<std::mutex> &lock);
    void stop();

    std::shared_ptr<tarvex_l_box_flight_state> state_;
    tarvex_box_session_t *box_;
    const char *location_;
    uint64_t size_;
    int attempts_;
    std::vector<std::thread> threads_;
};

void tarvex_l_box_range_flight::plan(tarvex_off_t offset)
{
    uint64_t rest = size_ - static_cast<uint64_t>(offset);
    uint64_t most = static_cast<uint64_t>(std::max<int64_t>(tarvex_i_box_stream_range_max, 1));
    uint64_t count = (rest + most - 1) / most;
    uint64_t length = (rest + count - 1) / count;
    length = std::max(length, static_cast<uint64_t>(std::max<int64_t>(
                                  tarvex_i_box_stream_range_min, 1)));
    state_->buffer_size = static_cast<size_t>(std::min(length, rest));
    for (uint64_t at = static_cast<uint64_t>(offset); at < size_; at += length) {
        tarvex_l_box_span range;
        range.first = static_cast<tarvex_off_t>(at);
        range.length = static_cast<size_t>(std::min(length, size_ - at));
        state_->ranges.push_back(range);
    }
}

bool tarvex_l_box_range_flight::start(int streams)
{
    /* One buffer per stream and one more: a stream that has finished a
     * range can start the next while the earliest is still being taken. */
    for (int slot = 0; slot <= streams; slot++) {
        state_->buffers.emplace_back();
        state_->free_slots.push_back(slot);
    }
    threads_.reserve(static_cast<size_t>(streams));
    try {
        for (int i = 0; i < streams; i++)
            threads_.emplace_back([this] { fetch_ranges(); });
    } catch (const std::system_error &) {
        /* As many streams as there are threads. */
    }
    return !threads_.empty();
}

void tarvex_l_box_range_flight::stop()
{
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cond.notify_all();
    for (std::thread &thread : threads_)
        if (thread.joinable())
            thread.join();
    threads_.clear();
}

/* A stream: the next range not yet taken, into a free buffer, as long as
 * nothing has failed. */
void tarvex_l_box_range_flight::fetch_ranges()
{
    tarvex_l_box_flight_state &state = *state_;
    for (;;) {
        size_t index = 0;
        {
            std::unique_lock<std::mutex> lock(state.mutex);
            state.cond.wait(lock, [&] {
                return state.stopping || state.next >= state.ranges.size() ||
                       !state.free_slots.empty();
            });
            if (state.stopping || state.next >= state.ranges.size())
                return;
            index = state.next++;
            int slot = state.free_slots.back();
            state.free_slots.pop_back();
            auto &buffer = state.buffers[static_cast<size_t>(slot)];
            if (buffer == nullptr)
                buffer = tarvex_box_bytes_alloc(state.buffer_size);
            if (buffer == nullptr) {
                state.fail(TARVEX_BOX_MALLOC_ERROR());
                return;
            }
            state.ranges[index].slot = slot;
            state.ranges[index].buffer = buffer.get();
        }
        tarvex_result_t result = tarvex_box_guarded([&] { return fetch(index); });
        std::lock_guard<std::mutex> lock(state.mutex);
        if (result != TARVEX_SUCCESS) {
            state.fail(result);
            return;
        }
        state.cond.notify_all();
    }
}

/* One range, as the one-stream download's request but for its Range. */
tarvex_result_t tarvex_l_box_range_flight::fetch(size_t index)
{
    tarvex_l_box_fetch fetch = {state_.get(), index, size_, nullptr, {}, {}, {}};
    tarvex_box_request_t download = tarvex_box_download_request(
        location_, tarvex_l_box_take_range, tarvex_l_box_ask_rest, &fetch, attempts_);
    download.abandon = tarvex_l_box_give_up;
    download.abandon_arg = state_.get();
    tarvex_box_request_guard guard{&download};
    fetch.request = &download;
    fetch.answer.request = &download;
    tarvex_result_t result = tarvex_box_request(box_, &download);
    if (result != TARVEX_SUCCESS && fetch.answer.refusal != nullptr) {
        tarvex_error_discard(result);
        return TARVEX_BOX_GENERIC_ERROR("%s", fetch.answer.refusal);
    }
    if (result != TARVEX_SUCCESS)
        return result;
    /* A whole-file answer must have been the whole file as listed. */
    if (download.response.response_code == 200 && fetch.answer.received != size_)
        return tarvex_l_box_changed();
    if (state_->ranges[index].filled != state_->ranges[index].length)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Box's answer ended before the range did.");
    return TARVEX_SUCCESS;
}

/* Registers the next piece of the earliest range not wholly handed on,
 * when one is ready; false when there is none yet.  Called with the lock
 * held; it is let go while the server takes the write. */
bool tarvex_l_box_range_flight::hand_on(std::unique_lock<std::mutex> &lock)
{
    tarvex_l_box_flight_state &state = *state_;
    size_t index = state.head;
    tarvex_l_box_span &range = state.ranges[index];
    size_t ready = range.filled - range.handed;
    if (ready == 0 || (ready < tarvex_l_box_piece_min && range.filled < range.length))
        return false;
    auto *write = new tarvex_l_box_write{state_, index,
                                         range.first + static_cast<tarvex_off_t>(range.handed),
                                         ready};
    tarvex_byte_t *data = range.buffer + range.handed;
    range.handed += ready;
    if (range.handed == range.length)
        state.head++;
    state.writes_out++;
    lock.unlock();
    /* Not under the lock: the server may complete the write at once, on
     * this very thread. */
    tarvex_result_t result = tarvex_gridftp_server_register_write(
        state.op, data, ready, write->offset, -1, tarvex_l_box_written, write);
    lock.lock();
    if (result != TARVEX_SUCCESS) {
        delete write;
        state.writes_out--;
        state.fail(result);
    }
    return true;
}

/* Waits until the data channel has taken or refused every write, unless
 * it takes nothing for the idle time-out: then the writes keep the record
 * alive without us. */
void tarvex_l_box_range_flight::wait_for_writes(std::unique_lock<std::mutex> &lock)
{
    tarvex_l_box_flight_state &state = *state_;
    auto idle = std::chrono::milliseconds(tarvex_i_box_progress_timeout_ms);
    state.last_written = std::chrono::steady_clock::now();
    while (state.writes_out > 0) {
        if (state.cond.wait_for(lock, tarvex_l_box_tick) != std::cv_status::timeout)
            continue;
        if (std::chrono::steady_clock::now() - state.last_written > idle) {
            state.abandoned = true;
            state.fail(TARVEX_BOX_GENERIC_ERROR(
                "The data channel took nothing for %d ms.", tarvex_i_box_progress_timeout_ms));
            return;
        }
    }
}

tarvex_result_t tarvex_l_box_range_flight::run()
{
    tarvex_l_box_flight_state &state = *state_;
    std::unique_lock<std::mutex> lock(state.mutex);
    while (state.head < state.ranges.size() && state.failure.ok()) {
        if (hand_on(lock))
            continue;
        if (state.cond.wait_for(lock, tarvex_l_box_tick) == std::cv_status::timeout &&
            tarvex_gridftp_server_operation_cancelled(state.op))
            state.fail(TARVEX_BOX_GENERIC_ERROR("%s", "The transfer was cancelled."));
    }
    wait_for_writes(lock);
    tarvex_result_t result = state.failure.release();
    lock.unlock();
    stop();
    return result;
}

} // namespace

bool tarvex_box_download_in_streams(tarvex_off_t offset, tarvex_off_t length, uint64_t size)
{
    return tarvex_i_box_download_streams > 1 && length == -1 && offset >= 0 &&
           static_cast<uint64_t>(offset) < size &&
           size - static_cast<uint64_t>(offset) > static_cast<uint64_t>(tarvex_i_box_streams_minimum);
}

tarvex_result_t tarvex_box_download_ranges(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                                           const char *location, tarvex_off_t offset,
                                           uint64_t size, int attempts, bool *started)
{
    *started = false;
    return tarvex_box_guarded([&] {
        tarvex_l_box_range_flight flight(op, box, location, size, attempts);
        flight.plan(offset);
        if (!flight.start(tarvex_i_box_download_streams))
            return TARVEX_SUCCESS;
        *started = true;
        return flight.run();
    });
}
