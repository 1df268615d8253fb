/*
 * The parts of a Box upload session (upload_parts.h): one part's reading
 * and PUT, and several parts in flight at once.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "recv"
#include "config.h"
#include "recv.h"
#include "request.h"
#include "tarvex_box_raii.h"
#include "token.h"
#include "upload_parts.h"
#include "tarvex_result.h"

/* ---- one part ---- */

namespace {

/* Standard base64 with "=" padding; false when `outbuf` cannot hold the
 * text and its NUL. */
bool tarvex_l_gfs_base64_encode(const unsigned char *inbuf, size_t in_len, char *outbuf,
                                size_t out_len)
{
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (out_len < (in_len + 2) / 3 * 4 + 1)
        return false;
    size_t o = 0;
    for (size_t i = 0; i < in_len; i += 3) {
        uint32_t group = static_cast<uint32_t>(inbuf[i]) << 16;
        if (i + 1 < in_len)
            group |= static_cast<uint32_t>(inbuf[i + 1]) << 8;
        if (i + 2 < in_len)
            group |= inbuf[i + 2];
        outbuf[o++] = alphabet[(group >> 18) & 63];
        outbuf[o++] = alphabet[(group >> 12) & 63];
        outbuf[o++] = i + 1 < in_len ? alphabet[(group >> 6) & 63] : '=';
        outbuf[o++] = i + 2 < in_len ? alphabet[group & 63] : '=';
    }
    outbuf[o] = '\0';
    return true;
}

void tarvex_l_box_gridftp_read_cb(tarvex_gfs_operation_t op, tarvex_result_t result,
                                  tarvex_byte_t *, tarvex_size_t nbytes, tarvex_off_t, bool eof,
                                  void *user_arg)
{
    /* The data landed where the registered buffer pointed; the offset
     * tells nothing more. */
    auto *monitor = static_cast<tarvex_box_monitor_t *>(user_arg);
    tarvex_mutex_lock(&monitor->mutex);
    monitor->result = result;
    monitor->eof = eof;
    monitor->length += nbytes;
    monitor->completions++;
    tarvex_cond_signal(&monitor->cond);
    tarvex_mutex_unlock(&monitor->mutex);
    tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(nbytes));
}

} // namespace

void tarvex_box_digest_value(const unsigned char sha1[SHA_DIGEST_LENGTH],
                             char value[tarvex_box_digest_size])
{
    char encoded[29];
    tarvex_l_gfs_base64_encode(sha1, SHA_DIGEST_LENGTH, encoded, sizeof(encoded));
    snprintf(value, tarvex_box_digest_size, "sha=%s", encoded);
}

tarvex_box_monitor_scope::tarvex_box_monitor_scope()
{
    tarvex_mutex_init(&monitor.mutex, nullptr);
    tarvex_cond_init(&monitor.cond, nullptr);
}

tarvex_box_monitor_scope::~tarvex_box_monitor_scope()
{
    tarvex_cond_destroy(&monitor.cond);
    tarvex_mutex_destroy(&monitor.mutex);
}

tarvex_result_t tarvex_box_fill_part(tarvex_gfs_operation_t op, tarvex_box_monitor_t *monitor,
                                     tarvex_byte_t *buffer, size_t part_size, bool last)
{
    tarvex_mutex_lock(&monitor->mutex);
    monitor->length = 0;
    monitor->eof = false;
    monitor->done = false;
    monitor->result = TARVEX_SUCCESS;

    tarvex_result_t result = TARVEX_SUCCESS;
    for (;;) {
        size_t wanted = part_size - monitor->length;
        if (wanted == 0 && !last)
            break;
        unsigned long seen = monitor->completions;
        result = tarvex_gridftp_server_register_read(op, buffer + monitor->length, wanted,
                                                     tarvex_l_box_gridftp_read_cb, monitor);
        if (result != TARVEX_SUCCESS)
            break;
        while (monitor->completions == seen)
            tarvex_cond_wait(&monitor->cond, &monitor->mutex);
        if (monitor->eof || monitor->result != TARVEX_SUCCESS)
            break;
    }
    if (result == TARVEX_SUCCESS)
        result = monitor->result;
    tarvex_mutex_unlock(&monitor->mutex);
    return result;
}

tarvex_box_part_put::~tarvex_box_part_put()
{
    tarvex_box_request_release(&request);
}

tarvex_result_t tarvex_box_part_put::prepare(const tarvex_box_upload_session_t *upload,
                                             const char *url, int index,
                                             const tarvex_byte_t *data, size_t length)
{
    unsigned char sha1[SHA_DIGEST_LENGTH];
    if (SHA1(data, length, sha1) == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed generating part hash.");
    tarvex_box_digest_value(sha1, digest_);

    int64_t first = static_cast<int64_t>(index) * static_cast<int64_t>(upload->part_size);
    snprintf(range_, sizeof(range_), "bytes %ld-%ld/%ld", static_cast<long>(first),
             static_cast<long>(first + static_cast<int64_t>(length) - 1),
             static_cast<long>(upload->total_size));
    /* The header is "digest" in lower case: what Box has always been sent. */
    headers_[0] = {"Content-Type", "application/octet-stream"};
    headers_[1] = {"Content-Range", range_};
    headers_[2] = {"digest", digest_};
    /* The block writer only reads its data. */
    block_ = {const_cast<tarvex_byte_t *>(data), length};

    request = tarvex_box_body_request(
        "PUT", url, headers_, &block_,
        {.attempts = 3, .retry = nullptr, .caller = "tarvex_i_box_upload_parts"});
    request.no_delay = true;
    request.progress_timeout_ms = 2 * tarvex_i_box_progress_timeout_ms;
    return TARVEX_SUCCESS;
}

/* ---- several parts at once ---- */

namespace {

/* What an acknowledged part adds to the record once every part before it
 * is in: Box's record of it (none when the answer named none) and the
 * whole file's digests up to its end. */
struct tarvex_l_box_done_part {
    tarvex_box_json_ptr part;
    bool unlisted = false;
    SHA_CTX sha1 = {};
    MD5_CTX md5 = {};
};

/* One part buffer and the part it holds while that is out. */
struct tarvex_l_box_slot {
    tarvex_box_bytes buffer;
    size_t length = 0;
    int index = -1;
    bool busy = false;     /* a part not yet both digested and answered */
    bool digested = false;
    bool answered = false;
    bool sent = false;     /* acknowledged by Box */
    bool faulty = false;   /* the whole file's digests failed over it */
    tarvex_l_box_done_part done;
};

class tarvex_l_box_part_flight {
public:
    tarvex_l_box_part_flight(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                             tarvex_box_upload_session_t *upload, const char *url,
                             int first_part)
        : op_(op), box_(box), upload_(upload), url_(url), prefix_(first_part),
          sha1_(upload->sha1_ctx), md5_(upload->md5_ctx)
    {
    }
    ~tarvex_l_box_part_flight() { stop(); }
    tarvex_l_box_part_flight(const tarvex_l_box_part_flight &) = delete;
    tarvex_l_box_part_flight &operator=(const tarvex_l_box_part_flight &) = delete;

    /* The digesting thread and up to `workers` sending ones; false when
     * not even one of each could be started (none is left running). */
    bool start(int workers);
    /* Reads and hands out the parts; the store's result. */
    tarvex_result_t run(int first_part);

private:
    tarvex_l_box_slot *free_slot();
    tarvex_l_box_slot *next_of(std::deque<tarvex_l_box_slot *> &queue);
    tarvex_result_t read_part(tarvex_box_monitor_t *monitor, tarvex_l_box_slot *slot,
                              int index);
    void send_parts();
    void send(tarvex_l_box_slot *slot, std::string *token);
    void digest_parts();
    void fail(int index, tarvex_result_t result);
    void settle(tarvex_l_box_slot *slot);
    void stop();
    tarvex_result_t outcome();

    static tarvex_result_t renew_token(tarvex_box_request_t *request, void *arg);
    static bool abandoned(void *arg);

    tarvex_gfs_operation_t op_;
    tarvex_box_session_t *box_;
    tarvex_box_upload_session_t *upload_;
    const char *url_;

    std::mutex mutex_; /* guards everything below but the digests */
    std::condition_variable cond_;
    std::vector<std::unique_ptr<tarvex_l_box_slot>> slots_;
    std::deque<tarvex_l_box_slot *> to_send_, to_digest_;
    /* Acknowledged parts beyond the first one the record lacks. */
    std::map<int, tarvex_l_box_done_part> done_;
    int prefix_;          /* the first part the record lacks */
    bool last_unlisted_ = false;
    tarvex::Result failure_;
    std::atomic<int> failed_index_{INT_MAX}; /* failure_'s part */
    bool closing_ = false;

    std::mutex token_mutex_; /* one renewal of the session's token at a time */
    /* The whole file's running digests: the digesting thread's alone. */
    SHA_CTX sha1_;
    MD5_CTX md5_;
    std::vector<std::thread> threads_;
};

/* A sending thread's request and its part: whether to give up on it. */
struct tarvex_l_box_sending {
    tarvex_l_box_part_flight *flight;
    std::string *token;
    int index;
};

bool tarvex_l_box_part_flight::start(int workers)
{
    threads_.reserve(static_cast<size_t>(workers) + 1);
    try {
        threads_.emplace_back([this] { digest_parts(); });
        for (int i = 0; i < workers; i++)
            threads_.emplace_back([this] { send_parts(); });
    } catch (const std::system_error &) {
        /* As many senders as there are threads; at least one is needed. */
    }
    if (threads_.size() >= 2)
        return true;
    stop();
    return false;
}

void tarvex_l_box_part_flight::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    cond_.notify_all();
    for (std::thread &thread : threads_)
        if (thread.joinable())
            thread.join();
    threads_.clear();
}

/* Keeps the failure of the earliest part: the store's answer, and the
 * boundary the record stops at.  Called with the mutex held. */
void tarvex_l_box_part_flight::fail(int index, tarvex_result_t result)
{
    tarvex::Result failure(result);
    if (index >= failed_index_)
        return;
    failure_ = std::move(failure);
    failed_index_ = index;
    cond_.notify_all();
}

/*
 * A part both digested and answered: its buffer is free again, and the
 * record takes every acknowledged part that now follows on from the ones
 * it holds, in order, with the digests up to the last of them.  Parts past
 * a failed one never join it (the failed one never does): a restart sends
 * them again.  Called with the mutex held.
 */
void tarvex_l_box_part_flight::settle(tarvex_l_box_slot *slot)
{
    if (slot->sent && !slot->faulty)
        done_[slot->index] = std::move(slot->done);
    slot->done = {};
    slot->busy = false;
    for (auto next = done_.find(prefix_); next != done_.end(); next = done_.find(prefix_)) {
        tarvex_l_box_done_part &part = next->second;
        if (part.part != nullptr)
            json_array_append(upload_->part_array, part.part.get());
        upload_->sha1_ctx = part.sha1;
        upload_->md5_ctx = part.md5;
        last_unlisted_ = part.unlisted;
        done_.erase(next);
        prefix_++;
    }
    cond_.notify_all();
}

/* A buffer for the next part, once one is free; none once a part has
 * failed for good. */
tarvex_l_box_slot *tarvex_l_box_part_flight::free_slot()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!failure_.ok())
            return nullptr;
        for (auto &slot : slots_)
            if (!slot->busy)
                return slot.get();
        cond_.wait(lock);
    }
}

/* Reads part `index` into `slot` and hands it to the other threads. */
tarvex_result_t tarvex_l_box_part_flight::read_part(tarvex_box_monitor_t *monitor,
                                                    tarvex_l_box_slot *slot, int index)
{
    size_t part_size = upload_->part_size;
    if (slot->buffer == nullptr) {
        slot->buffer = tarvex_box_bytes_alloc(part_size);
        if (slot->buffer == nullptr)
            return TARVEX_BOX_MALLOC_ERROR();
    }
    bool last = index == upload_->num_parts - 1;
    tarvex_result_t result =
        tarvex_box_fill_part(op_, monitor, slot->buffer.get(), part_size, last);
    if (result != TARVEX_SUCCESS)
        return result;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        slot->index = index;
        slot->length = monitor->length;
        slot->busy = true;
        slot->digested = slot->answered = slot->sent = slot->faulty = false;
        to_send_.push_back(slot);
        to_digest_.push_back(slot);
    }
    cond_.notify_all();
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_part_flight::run(int first_part)
{
    /* One buffer per sending thread: a spare one, so that the next part
     * is read while all are out, was measured to take the session 0.2 MiB
     * past N parts and 32 MiB (its own 13 MiB, the server's data channel
     * and the connections' buffers take the rest). */
    size_t buffers = threads_.size() - 1;
    for (size_t i = 0; i < buffers; i++)
        slots_.push_back(std::make_unique<tarvex_l_box_slot>());

    tarvex_box_monitor_scope reader;
    for (int index = first_part; index < upload_->num_parts; index++) {
        tarvex_l_box_slot *slot = free_slot();
        if (slot == nullptr)
            break;
        tarvex_result_t result = read_part(&reader.monitor, slot, index);
        if (result != TARVEX_SUCCESS) {
            std::lock_guard<std::mutex> lock(mutex_);
            fail(index, result);
            break;
        }
    }
    /* Every part handed out comes back, sent, failed or abandoned. */
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this] {
            for (auto &slot : slots_)
                if (slot->busy)
                    return false;
            return true;
        });
    }
    stop();
    return outcome();
}

/* The failure of the earliest part; else the complaint about a last part
 * whose answer named no part, as the one-at-a-time uploader makes it. */
tarvex_result_t tarvex_l_box_part_flight::outcome()
{
    tarvex_result_t result = failure_.release();
    if (result == TARVEX_SUCCESS && last_unlisted_)
        return TARVEX_BOX_GENERIC_ERROR("%s", "invalid part upload response");
    return result;
}

/* The next part of a thread's queue, waited for; none once the flight is
 * closing and the queue is empty. */
tarvex_l_box_slot *tarvex_l_box_part_flight::next_of(std::deque<tarvex_l_box_slot *> &queue)
{
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [&] { return closing_ || !queue.empty(); });
    if (queue.empty())
        return nullptr;
    tarvex_l_box_slot *slot = queue.front();
    queue.pop_front();
    return slot;
}

void tarvex_l_box_part_flight::send_parts()
{
    std::string token;
    while (tarvex_l_box_slot *slot = next_of(to_send_))
        send(slot, &token);
}

/* Before each attempt: the token renewed when near its end, as for every
 * part, one thread at a time, and this thread's copy taken. */
tarvex_result_t tarvex_l_box_part_flight::renew_token(tarvex_box_request_t *request, void *arg)
{
    auto *sending = static_cast<tarvex_l_box_sending *>(arg);
    tarvex_l_box_part_flight *flight = sending->flight;
    std::lock_guard<std::mutex> lock(flight->token_mutex_);
    tarvex_result_t result = tarvex_box_token_refresh(flight->box_, flight->op_);
    if (result != TARVEX_SUCCESS)
        return result;
    return tarvex_box_guarded([&] {
        *sending->token = flight->box_->access_token ? flight->box_->access_token : "";
        request->access_token = sending->token->c_str();
        return TARVEX_SUCCESS;
    });
}

/* A part's request is given up when the client is gone, or when an
 * earlier part has failed for good (a restart sends this one again). */
bool tarvex_l_box_part_flight::abandoned(void *arg)
{
    auto *sending = static_cast<tarvex_l_box_sending *>(arg);
    return tarvex_gridftp_server_operation_cancelled(sending->flight->op_) ||
           sending->index > sending->flight->failed_index_;
}

void tarvex_l_box_part_flight::send(tarvex_l_box_slot *slot, std::string *token)
{
    tarvex_box_json_ptr part;
    bool unlisted = false;
    tarvex_result_t result = tarvex_box_guarded([&] {
        tarvex_box_part_put put;
        tarvex_result_t sent = put.prepare(upload_, url_, slot->index, slot->buffer.get(),
                                           slot->length);
        if (sent != TARVEX_SUCCESS)
            return sent;
        tarvex_l_box_sending sending = {this, token, slot->index};
        put.request.before_attempt = renew_token;
        put.request.before_attempt_arg = &sending;
        put.request.abandon = abandoned;
        put.request.abandon_arg = &sending;
        sent = tarvex_box_request(box_, &put.request);
        if (sent != TARVEX_SUCCESS)
            return sent;
        /* An empty success has always been reported as lack of memory. */
        if (put.request.json == nullptr)
            return TARVEX_BOX_MALLOC_ERROR();
        /* A copy of its own: the answer's document goes with the request,
         * on this thread, while the record is assembled on another. */
        json_t *record = json_object_get(put.request.json, "part");
        unlisted = record == nullptr;
        if (record != nullptr) {
            part.reset(json_deep_copy(record));
            if (part == nullptr)
                return TARVEX_BOX_MALLOC_ERROR();
        }
        return TARVEX_SUCCESS;
    });

    std::lock_guard<std::mutex> lock(mutex_);
    slot->answered = true;
    slot->sent = result == TARVEX_SUCCESS;
    if (slot->sent) {
        slot->done.part = std::move(part);
        slot->done.unlisted = unlisted;
    } else {
        fail(slot->index, result);
    }
    if (slot->digested)
        settle(slot);
}

/* The whole file's SHA-1 and MD5, part after part in file order; each
 * part leaves the digests as they stand after it. */
void tarvex_l_box_part_flight::digest_parts()
{
    while (tarvex_l_box_slot *slot = next_of(to_digest_)) {
        const char *failed = nullptr;
        if (SHA1_Update(&sha1_, slot->buffer.get(), slot->length) != 1)
            failed = "Failed updating file sha1 hash.";
        else if (MD5_Update(&md5_, slot->buffer.get(), slot->length) != 1)
            failed = "Failed updating file md5 hash.";

        std::lock_guard<std::mutex> lock(mutex_);
        slot->digested = true;
        slot->done.sha1 = sha1_;
        slot->done.md5 = md5_;
        if (failed != nullptr) {
            /* The digests are no longer the file's: nothing after this
             * part can join the record. */
            slot->faulty = true;
            fail(slot->index, TARVEX_BOX_GENERIC_ERROR("%s", failed));
        }
        if (slot->answered)
            settle(slot);
    }
}

} // namespace

tarvex_result_t tarvex_box_upload_parts_in_flight(tarvex_gfs_operation_t op,
                                                  tarvex_box_session_t *box,
                                                  tarvex_box_upload_session_t *upload,
                                                  const char *url, int first_part,
                                                  int in_flight, bool *started)
{
    *started = false;
    return tarvex_box_guarded([&] {
        tarvex_l_box_part_flight flight(op, box, upload, url, first_part);
        if (!flight.start(in_flight))
            return TARVEX_SUCCESS;
        *started = true;
        return flight.run(first_part);
    });
}
