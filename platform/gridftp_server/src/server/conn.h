// A connected socket, plain or TLS, driven without blocking the process:
// every wait is a poll() on the socket and on an optional cancel descriptor
// (an eventfd another thread writes to), with a time limit.
//
// The control connection is read by the session thread while replies may be
// written from the plug-in thread (150 openings, progress replies), so every
// call into the TLS object is serialised by an internal mutex; the socket
// is non-blocking so that a reader never holds the lock while it waits.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <mutex>
#include <string>

namespace tarvex_server {

enum class Io { ok, eof, timeout, cancelled, error };

// How a TLS session is set up on a connection.
struct TlsSetup {
    // The control connection's: the session its handshake makes, and the
    // session tickets it issues, carry this mark, which a data connection
    // must show again by resuming one of them (see tls_resumed_mark()).
    // The SSL_CTX must come from make_tls_context() (tls.h), which puts
    // the mark into tickets.
    const std::string *mark_sessions = nullptr;
};

class Conn {
public:
    explicit Conn(int fd);
    ~Conn();
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;

    int fd() const { return fd_; }
    bool is_tls() const { return ssl_ != nullptr; }

    // Server side of a TLS handshake on this connection.  A connection
    // that marks no sessions (a data connection) issues no session ticket.
    Io start_tls(SSL_CTX *ctx, int timeout_ms, int cancel_fd, std::string &err,
                 const TlsSetup &setup = TlsSetup());
    // After start_tls: the mark of the session the client resumed; empty
    // when it resumed none, or one without a mark.
    std::string tls_resumed_mark();
    // The data ended (eof) with a bare end of the TCP stream, without the
    // TLS close_notify that says the peer sent everything: the peer may
    // have been cut off.
    bool end_unconfirmed() const { return end_unconfirmed_; }

    // Reads at most `len` bytes into `buf`; `got` is what arrived.  A
    // timeout of 0 tries once without waiting.
    Io read_some(void *buf, size_t len, size_t &got, int timeout_ms, int cancel_fd);
    Io write_all(const void *buf, size_t len, int timeout_ms, int cancel_fd);

    // Orderly end: TLS close_notify (waiting a little for the peer's), then
    // the socket's write side.  Best effort.
    void finish(int timeout_ms);
    // Wakes any thread waiting on this socket and makes further I/O fail.
    void abort();

private:
    Io wait(short events, int timeout_ms, int cancel_fd);

    int fd_;
    SSL *ssl_ = nullptr;
    bool tls_failed_ = false;      // a fatal TLS error: no close_notify any more
    bool end_unconfirmed_ = false;
    std::mutex ssl_mu_;
};

// Monotonic milliseconds, for deadlines.
long long now_ms();

// The milliseconds left until `deadline` (of now_ms(); negative: none) as
// poll takes them in `left` (-1: no limit); false once it has passed.
bool ms_left(long long deadline, int &left);

} // namespace tarvex_server
