#include "conn.h"

#include "tls.h"

#include <openssl/err.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarvex_server {

namespace {

// The peer ended the TCP stream without a TLS close_notify (OpenSSL 3
// reports that as a protocol error, which it is for TLS itself).
bool unexpected_eof(int ssl_error)
{
    return ssl_error == SSL_ERROR_SSL &&
           ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
}

} // namespace

long long now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool ms_left(long long deadline, int &left)
{
    left = -1;
    if (deadline < 0)
        return true;
    long long rest = deadline - now_ms();
    if (rest <= 0)
        return false;
    left = static_cast<int>(rest);
    return true;
}

Conn::Conn(int fd) : fd_(fd)
{
    int flags = fcntl(fd_, F_GETFL, 0);
    if (flags >= 0)
        fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
}

Conn::~Conn()
{
    if (ssl_ != nullptr)
        SSL_free(ssl_);
    if (fd_ >= 0)
        close(fd_);
}

Io Conn::wait(short events, int timeout_ms, int cancel_fd)
{
    if (timeout_ms == 0)
        return Io::timeout;
    long long deadline = timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
    for (;;) {
        pollfd p[2] = {{fd_, events, 0}, {cancel_fd, POLLIN, 0}};
        int left = -1;
        if (!ms_left(deadline, left))
            return Io::timeout;
        int n = poll(p, cancel_fd >= 0 ? 2 : 1, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return Io::error;
        }
        if (n == 0)
            return Io::timeout;
        if (cancel_fd >= 0 && (p[1].revents & POLLIN))
            return Io::cancelled;
        if (p[0].revents != 0)
            return Io::ok; // readable, writable, or an error the next call reports
    }
}

Io Conn::start_tls(SSL_CTX *ctx, int timeout_ms, int cancel_fd, std::string &err,
                   const TlsSetup &setup)
{
    std::unique_lock lock(ssl_mu_);
    ssl_ = SSL_new(ctx);
    if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) {
        err = "cannot set up TLS";
        return Io::error;
    }
    // Read by the ticket callback (tls.cpp) while the handshake runs.
    SSL_set_app_data(ssl_, const_cast<std::string *>(setup.mark_sessions));
    // OpenSSL sends two TLS 1.3 tickets right after the handshake by
    // default.  On a data connection of an upload the client never reads
    // them: they sit unread in its socket when it closes, and its kernel
    // answers the close with a reset that can overtake the end of the data
    // (Debian's ftp-ssl failed 2 to 6 of 8 uploads so, a Python client
    // that closes without unwrap() 16 of 24).  Nothing resumes a data
    // connection's session anyway.  The control connection's tickets stay:
    // clients take the session they resume right after the handshake
    // (wget, through GnuTLS, waits for the ticket there and nowhere else).
    if (setup.mark_sessions == nullptr)
        SSL_set_num_tickets(ssl_, 0);
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        ERR_clear_error();
        int rc = SSL_accept(ssl_);
        if (rc == 1) {
            // The session itself too, for clients that resume by session
            // id (TLS 1.2) rather than by ticket.
            if (setup.mark_sessions != nullptr && !mark_session(ssl_, *setup.mark_sessions)) {
                err = "cannot set up TLS";
                return Io::error;
            }
            return Io::ok;
        }
        int e = SSL_get_error(ssl_, rc);
        short ev = e == SSL_ERROR_WANT_READ    ? short{POLLIN}
                   : e == SSL_ERROR_WANT_WRITE ? short{POLLOUT}
                                               : short{0};
        if (ev == 0) {
            unsigned long code = ERR_peek_last_error();
            char buf[256];
            ERR_error_string_n(code, buf, sizeof buf);
            err = code != 0 ? buf : "TLS handshake failed";
            return Io::error;
        }
        long long rest = deadline - now_ms();
        lock.unlock();
        Io w = rest > 0 ? wait(ev, static_cast<int>(rest), cancel_fd) : Io::timeout;
        lock.lock();
        if (w != Io::ok) {
            err = "TLS handshake did not complete";
            return w;
        }
    }
}

Io Conn::read_some(void *buf, size_t len, size_t &got, int timeout_ms, int cancel_fd)
{
    got = 0;
    long long deadline = timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
    for (;;) {
        short ev = POLLIN;
        if (ssl_ != nullptr) {
            std::lock_guard lock(ssl_mu_);
            ERR_clear_error();
            int rc = SSL_read(ssl_, buf, static_cast<int>(len > 1 << 30 ? 1 << 30 : len));
            if (rc > 0) {
                got = static_cast<size_t>(rc);
                return Io::ok;
            }
            int e = SSL_get_error(ssl_, rc);
            if (e == SSL_ERROR_ZERO_RETURN)
                return Io::eof;
            if (e == SSL_ERROR_WANT_WRITE) {
                ev = POLLOUT;
            } else if (e != SSL_ERROR_WANT_READ) {
                tls_failed_ = true;
                // Many FTP clients end a data connection so: the end of
                // the data, which the caller may take or refuse.
                end_unconfirmed_ = unexpected_eof(e);
                return end_unconfirmed_ ? Io::eof : Io::error;
            }
        } else {
            ssize_t n = recv(fd_, buf, len, 0);
            if (n > 0) {
                got = static_cast<size_t>(n);
                return Io::ok;
            }
            if (n == 0)
                return Io::eof;
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                return Io::error;
        }
        int left = -1;
        if (deadline >= 0) {
            left = static_cast<int>(deadline - now_ms());
            if (left <= 0)
                return Io::timeout;
        }
        Io w = wait(ev, left, cancel_fd);
        if (w != Io::ok)
            return w;
    }
}

Io Conn::write_all(const void *buf, size_t len, int timeout_ms, int cancel_fd)
{
    auto *p = static_cast<const char *>(buf);
    while (len > 0) {
        short ev = POLLOUT;
        size_t chunk = len > (1u << 30) ? (1u << 30) : len;
        if (ssl_ != nullptr) {
            std::lock_guard lock(ssl_mu_);
            ERR_clear_error();
            int rc = SSL_write(ssl_, p, static_cast<int>(chunk));
            if (rc > 0) {
                p += rc;
                len -= static_cast<size_t>(rc);
                continue;
            }
            int e = SSL_get_error(ssl_, rc);
            if (e == SSL_ERROR_WANT_READ) {
                ev = POLLIN;
            } else if (e != SSL_ERROR_WANT_WRITE) {
                tls_failed_ = true;
                return Io::error;
            }
        } else {
            ssize_t n = send(fd_, p, chunk, MSG_NOSIGNAL);
            if (n > 0) {
                p += n;
                len -= static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                return Io::error;
        }
        Io w = wait(ev, timeout_ms, cancel_fd);
        if (w != Io::ok)
            return w;
    }
    return Io::ok;
}

void Conn::finish(int timeout_ms)
{
    if (ssl_ == nullptr) {
        ::shutdown(fd_, SHUT_WR);
        return;
    }
    int rc = -1; // after a fatal TLS error, no close_notify
    {
        std::lock_guard lock(ssl_mu_);
        if (!tls_failed_) {
            ERR_clear_error();
            rc = SSL_shutdown(ssl_);
        }
    }
    ::shutdown(fd_, SHUT_WR);
    if (rc != 0)
        return; // the peer's close_notify already came, or TLS is broken
    // Our close_notify is out: give the peer a moment to answer with its own
    // (clients that unwrap the data connection wait for ours, then send
    // theirs), dropping whatever else it still sends.
    long long deadline = now_ms() + timeout_ms;
    char sink[4096];
    for (;;) {
        int n;
        int e;
        {
            std::lock_guard lock(ssl_mu_);
            ERR_clear_error();
            n = SSL_read(ssl_, sink, sizeof sink);
            e = n > 0 ? 0 : SSL_get_error(ssl_, n);
        }
        if (n > 0)
            continue;
        if (e != SSL_ERROR_WANT_READ)
            return;
        long long rest = deadline - now_ms();
        if (rest <= 0 || wait(POLLIN, static_cast<int>(rest), -1) != Io::ok)
            return;
    }
}

std::string Conn::tls_resumed_mark()
{
    std::lock_guard lock(ssl_mu_);
    if (ssl_ == nullptr || SSL_session_reused(ssl_) != 1)
        return "";
    SSL_SESSION *session = SSL_get_session(ssl_);
    void *data = nullptr;
    size_t length = 0;
    if (session == nullptr || SSL_SESSION_get0_ticket_appdata(session, &data, &length) != 1 ||
        data == nullptr)
        return "";
    return std::string(static_cast<const char *>(data), length);
}

void Conn::abort()
{
    ::shutdown(fd_, SHUT_RDWR);
}

} // namespace tarvex_server
