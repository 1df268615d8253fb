#include "transfer.h"

#include "mark_registry.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace tarvex_server {

namespace {

constexpr int connect_timeout_ms = 30000;
// How much of a store's data is read ahead at most: a part of the Box
// plug-in's uploads (8 MiB), which it asks for in one read after it has
// sent the part before.
constexpr size_t read_ahead_limit = 8u << 20;

void signal_fd(int fd)
{
    uint64_t one = 1;
    if (write(fd, &one, sizeof one) < 0) {
        // the descriptor is a counter: it cannot be full
    }
}

} // namespace

tarvex_result_t data_error(const char *what)
{
    return tarvex_error_put(tarvex_error_construct_error(&tarvex_i_gfs_module, nullptr,
                                                         TARVEX_GFS_ERROR_DATA, __FILE__,
                                                         __func__, __LINE__, "%s", what));
}

Transfer::Transfer(DataSetup &setup, TransferParams params)
    : setup_(setup), p_(std::move(params))
{
    cancel_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    stream_offset_ = p_.range_offset;
}

Transfer::~Transfer()
{
    close(false);
    if (cancel_fd_ >= 0)
        ::close(cancel_fd_);
    if (wake_fd_ >= 0)
        ::close(wake_fd_);
}

void Transfer::fail(const std::string &reply)
{
    std::lock_guard lock(mu_);
    if (failure_.empty())
        failure_ = reply;
}

std::string Transfer::failure() const
{
    std::lock_guard lock(mu_);
    return failure_;
}

void Transfer::begin(bool with_thread)
{
    if (began_.exchange(true))
        return;
    // Announced before the 150 goes out: a client that has read it may
    // send data and then STAT at once, and a STAT seen before the flag was
    // set waited for the transfer's end, which waited for that client.
    announced_ = true;
    p_.send_reply(150, !p_.announce.empty()
                           ? p_.announce
                           : std::string("Opening ") + (p_.ascii ? "ASCII" : "BINARY") +
                                 " mode data connection for " + p_.what + ".");
    std::string why;
    conn_ = setup_.open(connect_timeout_ms, cancel_fd_, why,
                        p_.tls != nullptr ? DataSetup::Vetter([this](Conn &c, int timeout_ms,
                                                                     std::string &reason) {
                            return secure(c, timeout_ms, reason);
                        })
                                          : DataSetup::Vetter());
    if (!conn_) {
        fail(aborted_ ? "426 Connection closed; transfer aborted."
                      : "425 Can't open data connection: " + why + ".");
        return;
    }
    if (!with_thread)
        return;
    std::lock_guard lock(mu_);
    try {
        thread_ = std::thread([this] { serve(); });
        serving_ = true;
    } catch (const std::system_error &) {
        // No thread: every registration is refused (usable() is false).
        failure_ = "425 Can't serve the data connection: out of resources.";
    }
}

// PROT P: the handshake on a new data connection, which must resume a
// session of the control connection.  A connection that does not is from
// somebody else (another local process that reached the passive port
// first) or from a client that cannot resume; it gets no data.  A session
// its full handshake made carries no mark, so it cannot come back with it.
bool Transfer::secure(Conn &c, int timeout_ms, std::string &why)
{
    std::string err;
    int limit = std::min(timeout_ms, connect_timeout_ms);
    long long until = now_ms() + limit;
    if (c.start_tls(p_.tls, limit, cancel_fd_, err) != Io::ok) {
        why = "TLS handshake failed";
        return false;
    }
    int left = static_cast<int>(std::max(0LL, until - now_ms()));
    if (p_.tls_require_resume &&
        !mark_registry::admits(c.tls_resumed_mark(), p_.tls_session_mark, p_.tls_user_mark, left,
                               cancel_fd_)) {
        c.finish(0); // an orderly end: the client reads the 425 that follows
        why = "the TLS session of the control connection was not resumed";
        if (p_.refused)
            p_.refused(why);
        return false;
    }
    return true;
}

void Transfer::read_range(tarvex_off_t *offset, tarvex_off_t *length)
{
    // One range: the restart offset to the end (or the asked length);
    // asked again, nothing more is wanted.
    *offset = p_.range_offset;
    *length = read_range_given_ ? 0 : p_.range_length;
    read_range_given_ = true;
}

void Transfer::write_range(tarvex_off_t *offset, tarvex_off_t *length)
{
    *offset = p_.range_offset;
    *length = -1;
}

bool Transfer::usable()
{
    return serving_ && !finished_ && failure_.empty() && !aborted_;
}

tarvex_result_t Transfer::enqueue(const Request &r)
{
    {
        std::lock_guard lock(mu_);
        if (usable()) {
            queue_.push_back(r);
            cv_.notify_one();
            signal_fd(wake_fd_);
            return TARVEX_SUCCESS;
        }
    }
    return data_error(aborted_ ? "The transfer was aborted." : "The data connection is not open.");
}

tarvex_result_t Transfer::register_write(tarvex_gfs_operation_t op, tarvex_byte_t *buf,
                                         tarvex_size_t len, tarvex_gridftp_server_write_cb_t cb,
                                         void *arg)
{
    return enqueue(Request{true, op, buf, len, cb, nullptr, arg});
}

tarvex_result_t Transfer::register_read(tarvex_gfs_operation_t op, tarvex_byte_t *buf,
                                        tarvex_size_t len, tarvex_gridftp_server_read_cb_t cb,
                                        void *arg)
{
    return enqueue(Request{false, op, buf, len, nullptr, cb, arg});
}

bool Transfer::write_text(const std::string &text)
{
    if (!conn_ || aborted_ || !failure().empty())
        return false;
    if (conn_->write_all(text.data(), text.size(), p_.io_timeout_ms, cancel_fd_) != Io::ok) {
        fail(aborted_ ? "426 Connection closed; transfer aborted."
                      : "426 Data connection failed; listing incomplete.");
        return false;
    }
    bytes_ += static_cast<long long>(text.size());
    return true;
}

void Transfer::plugin_finished()
{
    {
        std::lock_guard lock(mu_);
        finished_ = true;
    }
    cv_.notify_one();
    signal_fd(wake_fd_);
}

void Transfer::complete(const Request &r, bool ok, tarvex_size_t n, tarvex_off_t offset, bool eof)
{
    tarvex_result_t res = ok ? TARVEX_SUCCESS
                             : data_error(aborted_ ? "The transfer was aborted."
                                                   : "The data connection failed.");
    // The plug-in's completion is C; should a C++ plug-in's throw anyway,
    // the data thread stays up and the transfer fails.
    try {
        if (r.is_write)
            r.wcb(r.op, res, r.buf, n, r.arg);
        else
            r.rcb(r.op, res, r.buf, n, offset, eof, r.arg);
    } catch (...) {
        fail("451 The storage failed unexpectedly.");
    }
}

void Transfer::serve()
{
    for (;;) {
        Request r;
        bool failed;
        {
            std::unique_lock lock(mu_);
            while (!finished_ && queue_.empty()) {
                if (!may_read_ahead()) {
                    cv_.wait(lock);
                    continue;
                }
                lock.unlock();
                read_ahead();
                lock.lock();
            }
            if (queue_.empty())
                break;
            r = queue_.front();
            queue_.pop_front();
            failed = !failure_.empty() || aborted_;
        }
        if (failed) {
            complete(r, false, 0, stream_offset_, false);
            continue;
        }
        if (r.is_write) {
            if (!write_file_data(r)) {
                fail(aborted_ ? "426 Connection closed; transfer aborted."
                              : "426 Data connection failed; transfer aborted.");
                complete(r, false, 0, 0, false);
                continue;
            }
            bytes_ += static_cast<long long>(r.len);
            complete(r, true, r.len, 0, false);
            continue;
        }
        if (r.len == 0)
            await_end(r);
        else if (p_.ascii)
            serve_read_ascii(r);
        else
            serve_read(r);
    }
    {
        std::lock_guard lock(mu_);
        thread_done_ = true;
    }
    p_.notify();
}

// Called with mu_ held.  Only a store reads ahead (its first read has been
// served), over a plain connection (a TLS record layer may want to write
// while it reads, which the plain wait below does not serve), and not
// after the data's end, a failure or an abort.
bool Transfer::may_read_ahead() const
{
    return receiving_ && !p_.ascii && !conn_->is_tls() && !eof_ && ahead_io_ == Io::ok &&
           ahead_end_ < read_ahead_limit && failure_.empty() && !aborted_;
}

// The plug-in has no read registered: take what the client has sent into
// the read-ahead buffer, or wait until it sends more, the plug-in registers
// a read or finishes, or the transfer is aborted; one step at a time, so
// that the caller looks at the queue between steps.  The client keeps
// sending while the plug-in works on what it has (the Box plug-in sends an
// 8 MiB part on before it asks for the next); the socket's own buffer took
// about 2 MiB of that, and the next 8 MiB read waited 7 to 8 ms for the
// client to send the rest, where it now takes about 1 ms.  Failures are
// kept for the next read, which reports them after the data before them.
void Transfer::read_ahead()
{
    if (!ahead_)
        ahead_.reset(new tarvex_byte_t[read_ahead_limit]);
    size_t n = 0;
    Io io = conn_->read_some(ahead_.get() + ahead_end_, read_ahead_limit - ahead_end_, n, 0,
                             cancel_fd_);
    if (io == Io::ok) {
        ahead_end_ += n;
        return;
    }
    if (io == Io::eof) {
        eof_ = true;
        return;
    }
    if (io != Io::timeout) {
        ahead_io_ = io;
        return;
    }
    pollfd p[3] = {{conn_->fd(), POLLIN, 0}, {wake_fd_, POLLIN, 0}, {cancel_fd_, POLLIN, 0}};
    if (poll(p, 3, -1) < 0 && errno != EINTR) {
        ahead_io_ = Io::error;
        return;
    }
    if ((p[1].revents & POLLIN) != 0) {
        uint64_t count = 0;
        if (read(wake_fd_, &count, sizeof count) < 0) {
            // another wake-up took it first: nothing to drain
        }
    }
}

// Moves read-ahead data into a plug-in's buffer; how much it moved.
tarvex_size_t Transfer::take_ahead(tarvex_byte_t *buf, tarvex_size_t len)
{
    size_t n = std::min(static_cast<size_t>(len), ahead_end_ - ahead_begin_);
    if (n > 0) {
        memcpy(buf, ahead_.get() + ahead_begin_, n);
        ahead_begin_ += n;
    }
    if (ahead_begin_ == ahead_end_)
        ahead_begin_ = ahead_end_ = 0;
    return n;
}

void Transfer::serve_read(const Request &r)
{
    receiving_ = true;
    // A read fills the whole buffer unless the client's data ends first:
    // fewer, larger completions are what keeps a store fast.
    tarvex_size_t got = take_ahead(r.buf, r.len);
    Io io = got < r.len ? ahead_io_ : Io::ok;
    while (io == Io::ok && !eof_ && got < r.len) {
        size_t n = 0;
        io = conn_->read_some(r.buf + got, r.len - got, n, p_.io_timeout_ms, cancel_fd_);
        if (io == Io::eof) {
            eof_ = true;
            io = take_end() ? Io::ok : Io::error;
            break;
        }
        if (io != Io::ok)
            break;
        got += n;
    }
    if (io != Io::ok) {
        fail(aborted_ ? "426 Connection closed; transfer aborted."
                      : "426 Data connection failed; transfer aborted.");
        complete(r, false, got, stream_offset_, false);
        return;
    }
    tarvex_off_t at = stream_offset_;
    stream_offset_ += static_cast<tarvex_off_t>(got);
    bytes_ += static_cast<long long>(got);
    // The end seen by the read-ahead is the data's end once its buffer is
    // empty.
    complete(r, true, got, at, eof_ && ahead_begin_ == ahead_end_);
}

// The client's data have ended: whether the end is taken.  An end without
// TLS close_notify is noted (the session marks the store in its logs);
// with tls_strict_eof it fails the store, before the plug-in is told of an
// end, so nothing is kept.
bool Transfer::take_end()
{
    if (!conn_->end_unconfirmed())
        return true;
    end_unconfirmed_ = true;
    if (!p_.tls_strict_eof)
        return true;
    fail("426 The data connection ended without TLS close_notify; transfer aborted.");
    return false;
}

// A plug-in's buffer of a retrieval onto the data connection, in TYPE A
// with CR LF line ends.
bool Transfer::write_file_data(const Request &r)
{
    if (!p_.ascii)
        return conn_->write_all(r.buf, r.len, p_.io_timeout_ms, cancel_fd_) == Io::ok;
    std::string wire;
    to_wire_.feed(reinterpret_cast<const char *>(r.buf), r.len, wire);
    return conn_->write_all(wire.data(), wire.size(), p_.io_timeout_ms, cancel_fd_) == Io::ok;
}

// serve_read() in TYPE A: the plug-in gets the data with LF line ends, so
// its offsets and sizes are those of the stored file.  No read-ahead: the
// converted data waiting in ascii_in_ play its part.
void Transfer::serve_read_ascii(const Request &r)
{
    Io io = Io::ok;
    char raw[64 * 1024];
    while (io == Io::ok && !eof_ && ascii_in_.size() < r.len) {
        size_t n = 0;
        io = conn_->read_some(raw, sizeof raw, n, p_.io_timeout_ms, cancel_fd_);
        if (io == Io::eof) {
            eof_ = true;
            io = take_end() ? Io::ok : Io::error;
            from_wire_.finish(ascii_in_);
        } else if (io == Io::ok) {
            from_wire_.feed(raw, n, ascii_in_);
        }
    }
    if (io != Io::ok) {
        fail(aborted_ ? "426 Connection closed; transfer aborted."
                      : "426 Data connection failed; transfer aborted.");
        complete(r, false, 0, stream_offset_, false);
        return;
    }
    size_t got = std::min(static_cast<size_t>(r.len), ascii_in_.size());
    memcpy(r.buf, ascii_in_.data(), got);
    ascii_in_.erase(0, got);
    tarvex_off_t at = stream_offset_;
    stream_offset_ += static_cast<tarvex_off_t>(got);
    bytes_ += static_cast<long long>(got);
    complete(r, true, got, at, eof_ && ascii_in_.empty());
}

// A read of nothing: the plug-in has every byte it expects and waits for
// the end of the client's data.  It completes at the end of data; a byte
// instead means the client sends more than it announced, and the transfer
// fails rather than store a file cut short.  (Completing at once would have
// the plug-in ask again and again, spinning, without ever seeing the end.)
void Transfer::await_end(const Request &r)
{
    bool held = ahead_begin_ < ahead_end_ || !ascii_in_.empty();
    Io io = held ? Io::ok : ahead_io_ != Io::ok ? ahead_io_ : Io::eof;
    if (io == Io::eof && !eof_) {
        char extra;
        size_t n = 0;
        io = conn_->read_some(&extra, 1, n, p_.io_timeout_ms, cancel_fd_);
    }
    if (io == Io::eof && take_end()) {
        eof_ = true;
        complete(r, true, 0, stream_offset_, true);
        return;
    }
    fail(aborted_           ? "426 Connection closed; transfer aborted."
         : io == Io::ok     ? "426 More data than announced; transfer aborted."
                            : "426 Data connection failed; transfer aborted.");
    complete(r, false, 0, stream_offset_, false);
}

void Transfer::abort()
{
    aborted_ = true;
    uint64_t one = 1;
    if (write(cancel_fd_, &one, sizeof one) < 0) {
        // the descriptor is a counter: it cannot be full
    }
    cv_.notify_all();
}

bool Transfer::done() const
{
    std::lock_guard lock(mu_);
    return !serving_ || thread_done_;
}

void Transfer::close(bool orderly)
{
    if (thread_.joinable())
        thread_.join();
    if (!conn_)
        return;
    if (orderly)
        conn_->finish(2000);
    conn_.reset();
}

} // namespace tarvex_server
