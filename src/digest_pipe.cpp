#include "digest_pipe.h"

#include <cstring>
#include <system_error>

namespace {

/* Four buffers of 1 MiB: the REST client hands 64 KiB pieces, and a
 * buffer of sixteen of them keeps the hand-overs (one lock each) rare. */
constexpr size_t tarvex_l_box_pipe_buffers = 4;
constexpr size_t tarvex_l_box_pipe_buffer_size = 1 << 20;

} // namespace

tarvex_box_digest_pipe::tarvex_box_digest_pipe(MD5_CTX *md5, SHA_CTX *sha1)
    : md5_(md5), sha1_(sha1), buffers_(tarvex_l_box_pipe_buffers)
{
    for (buffer &b : buffers_) {
        b.bytes.reset(new unsigned char[tarvex_l_box_pipe_buffer_size]);
        free_.push_back(&b);
    }
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error &) {
        /* No thread: feed() hashes at once. */
    }
}

tarvex_box_digest_pipe::~tarvex_box_digest_pipe()
{
    finish();
    if (thread_.joinable()) {
        {
            std::lock_guard lock(mutex_);
            closing_ = true;
        }
        cond_.notify_all();
        thread_.join();
    }
}

void tarvex_box_digest_pipe::hash(const void *data, size_t length) noexcept
{
    MD5_Update(md5_, data, length);
    SHA1_Update(sha1_, data, length);
}

void tarvex_box_digest_pipe::feed(const void *data, size_t length) noexcept
{
    if (!thread_.joinable()) {
        hash(data, length);
        return;
    }
    const auto *bytes = static_cast<const unsigned char *>(data);
    while (length > 0) {
        if (filling_ == nullptr) {
            std::unique_lock lock(mutex_);
            cond_.wait(lock, [this] { return !free_.empty(); });
            filling_ = free_.front();
            free_.pop_front();
            filling_->used = 0;
        }
        size_t n = std::min(length, tarvex_l_box_pipe_buffer_size - filling_->used);
        memcpy(filling_->bytes.get() + filling_->used, bytes, n);
        filling_->used += n;
        bytes += n;
        length -= n;
        if (filling_->used == tarvex_l_box_pipe_buffer_size)
            hand_over();
    }
}

void tarvex_box_digest_pipe::hand_over() noexcept
{
    {
        std::lock_guard lock(mutex_);
        full_.push_back(filling_);
    }
    filling_ = nullptr;
    cond_.notify_all();
}

void tarvex_box_digest_pipe::finish() noexcept
{
    if (!thread_.joinable())
        return;
    if (filling_ != nullptr)
        hand_over();
    std::unique_lock lock(mutex_);
    cond_.wait(lock, [this] { return full_.empty() && busy_ == 0; });
}

void tarvex_box_digest_pipe::run() noexcept
{
    std::unique_lock lock(mutex_);
    for (;;) {
        cond_.wait(lock, [this] { return closing_ || !full_.empty(); });
        if (full_.empty())
            return;
        buffer *b = full_.front();
        full_.pop_front();
        busy_++;
        lock.unlock();
        hash(b->bytes.get(), b->used);
        lock.lock();
        busy_--;
        free_.push_back(b);
        cond_.notify_all();
    }
}
