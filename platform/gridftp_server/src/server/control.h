// The control connection: command lines in, replies out.
//
// Lines are taken by a LineReader (parse.h: a hard limit, Telnet commands
// stripped); replies may be written from any thread, and never carry a
// control character inside a line.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "conn.h"
#include "parse.h"

namespace tarvex_server {

class ControlChannel {
public:
    explicit ControlChannel(int fd);

    Conn &conn() { return *conn_; }

    enum class Event { line, too_long, nul, eof, timeout, woken, error };
    // Waits for the next command line (without its CR LF) or for `wake_fd`.
    Event next(std::string &line, int timeout_ms, int wake_fd);

    // Switch to TLS after "234"; any bytes the client sent early are
    // dropped (RFC 4217 forbids pipelining past AUTH).
    // `session_mark` marks the sessions of this connection (TlsSetup,
    // conn.h); it must live as long as the channel.
    bool start_tls(SSL_CTX *ctx, const std::string &session_mark, std::string &err,
                   int timeout_ms = 30000);

    // One reply: `text` may hold several lines (split on '\n'), sent in the
    // RFC 959 multi-line form.  Returns false when the client is gone.
    bool reply(int code, std::string_view text);
    // Pre-formatted reply text, CR LF terminated lines.
    bool send_raw(std::string_view text);

private:
    bool take_line(std::string &line, Event &ev);

    std::unique_ptr<Conn> conn_;
    std::mutex write_mu_; // one reply at a time, whichever thread sends it
    LineReader lines_;
};

} // namespace tarvex_server
