#include "control.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "tarvex_split.h"

namespace tarvex_server {

namespace {

constexpr int write_timeout_ms = 60000;

} // namespace

ControlChannel::ControlChannel(int fd)
{
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // Urgent data (the Telnet Synch of an aborting client) stays in line, so
    // the command after it is read like any other.
    setsockopt(fd, SOL_SOCKET, SO_OOBINLINE, &one, sizeof one);
    conn_ = std::make_unique<Conn>(fd);
}

bool ControlChannel::take_line(std::string &line, Event &ev)
{
    switch (lines_.next(line)) {
    case LineReader::Event::none:
        return false;
    case LineReader::Event::line:
        ev = Event::line;
        return true;
    case LineReader::Event::too_long:
        ev = Event::too_long;
        return true;
    case LineReader::Event::nul:
        ev = Event::nul;
        return true;
    }
    return false;
}

ControlChannel::Event ControlChannel::next(std::string &line, int timeout_ms, int wake_fd)
{
    long long deadline = timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
    for (;;) {
        Event ev;
        if (take_line(line, ev))
            return ev;
        char tmp[4096];
        size_t got = 0;
        // Try at once (TLS may hold decrypted bytes the socket no longer shows).
        Io r = conn_->read_some(tmp, sizeof tmp, got, 0, -1);
        if (r == Io::ok) {
            lines_.feed(tmp, got);
            continue;
        }
        if (r == Io::eof)
            return Event::eof;
        if (r != Io::timeout)
            return Event::error;
        int left = -1;
        if (!ms_left(deadline, left))
            return Event::timeout;
        pollfd p[2] = {{conn_->fd(), POLLIN, 0}, {wake_fd, POLLIN, 0}};
        int n = poll(p, wake_fd >= 0 ? 2 : 1, left);
        if (n < 0 && errno != EINTR)
            return Event::error;
        if (n == 0)
            return Event::timeout;
        if (wake_fd >= 0 && (p[1].revents & POLLIN))
            return Event::woken;
    }
}

bool ControlChannel::start_tls(SSL_CTX *ctx, const std::string &session_mark, std::string &err,
                               int timeout_ms)
{
    lines_.clear();
    TlsSetup setup;
    setup.mark_sessions = &session_mark;
    return conn_->start_tls(ctx, timeout_ms, -1, err, setup) == Io::ok;
}

bool ControlChannel::send_raw(std::string_view text)
{
    std::lock_guard lock(write_mu_);
    return conn_->write_all(text.data(), text.size(), write_timeout_ms, -1) == Io::ok;
}

bool ControlChannel::reply(int code, std::string_view text)
{
    std::vector<std::string_view> lines;
    tarvex::for_each_piece(text, '\n', [&](std::string_view l) {
        if (!l.empty() && l.back() == '\r')
            l.remove_suffix(1);
        lines.push_back(l);
    });
    std::string out;
    std::string c = std::to_string(code);
    for (size_t k = 0; k < lines.size(); ++k) {
        bool last = k + 1 == lines.size();
        // Middle lines that themselves start with a digit could be taken for
        // the end of the reply: indent them.
        if (k == 0 || last)
            out += c + (last ? " " : "-");
        else
            out += ' ';
        // Names from storage and paths from the client may hold control
        // characters; a CR or LF inside a line would end it early and forge
        // a reply.
        out += printable(lines[k]);
        out += "\r\n";
    }
    return send_raw(out);
}

} // namespace tarvex_server
