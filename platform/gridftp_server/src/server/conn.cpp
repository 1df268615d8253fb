#include "conn.h"

#include "tls.h"

#include <openssl/err.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tarvex_server {

long long now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
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
        if (deadline >= 0) {
            long long rest = deadline - now_ms();
            if (rest <= 0)
                return Io::timeout;
            left = static_cast<int>(rest);
        }
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
            if (e == SSL_ERROR_WANT_WRITE)
                ev = POLLOUT;
            else if (e != SSL_ERROR_WANT_READ)
                return Io::error;
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

Io Conn::read_full(void *buf, size_t len, size_t &got, int timeout_ms, int cancel_fd)
{
    got = 0;
    auto *p = static_cast<char *>(buf);
    while (got < len) {
        size_t n = 0;
        Io r = read_some(p + got, len - got, n, timeout_ms, cancel_fd);
        if (r == Io::eof)
            return got > 0 ? Io::ok : Io::eof;
        if (r != Io::ok)
            return r;
        got += n;
    }
    return Io::ok;
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
            if (e == SSL_ERROR_WANT_READ)
                ev = POLLIN;
            else if (e != SSL_ERROR_WANT_WRITE)
                return Io::error;
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
    int rc;
    {
        std::lock_guard lock(ssl_mu_);
        ERR_clear_error();
        rc = SSL_shutdown(ssl_);
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

bool Conn::tls_session_marked(const std::string &mark)
{
    std::lock_guard lock(ssl_mu_);
    if (ssl_ == nullptr || SSL_session_reused(ssl_) != 1)
        return false;
    const SSL_SESSION *session = SSL_get_session(ssl_);
    void *data = nullptr;
    size_t length = 0;
    if (session == nullptr ||
        SSL_SESSION_get0_ticket_appdata(const_cast<SSL_SESSION *>(session), &data, &length) != 1)
        return false;
    return length == mark.size() && length > 0 && memcmp(data, mark.data(), length) == 0;
}

void Conn::abort()
{
    ::shutdown(fd_, SHUT_RDWR);
}

} // namespace tarvex_server
