#include "metrics_http.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace tarvex_server {

namespace {

long long monotonic_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

void set_nonblocking(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

std::string response(const char *status, const std::string &type, const std::string &body,
                     const char *extra = "")
{
    return std::string("HTTP/1.0 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extra +
           "Connection: close\r\n\r\n" + body;
}

std::string refusal(const char *status, const char *extra = "")
{
    return response(status, "text/plain; charset=utf-8", std::string(status) + "\n", extra);
}

// Where the header ends (just past its blank line), 0 while it has not.
size_t header_end(const std::string &in)
{
    size_t crlf = in.find("\r\n\r\n");
    if (crlf != std::string::npos)
        return crlf + 4;
    size_t lf = in.find("\n\n"); // a hand-typed request
    return lf != std::string::npos ? lf + 2 : 0;
}

} // namespace

std::string metrics_response(const std::string &request, const std::function<std::string()> &page)
{
    std::string line = request.substr(0, request.find_first_of("\r\n"));
    size_t sp1 = line.find(' ');
    size_t sp2 = sp1 == std::string::npos ? sp1 : line.find(' ', sp1 + 1);
    if (sp2 == std::string::npos || line.compare(sp2 + 1, 5, "HTTP/") != 0 ||
        line.find(' ', sp2 + 1) != std::string::npos)
        return refusal("400 Bad Request");
    if (line.compare(0, sp1, "GET") != 0)
        return refusal("405 Method Not Allowed", "Allow: GET\r\n");
    std::string target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    if (target != "/metrics" && target.rfind("/metrics?", 0) != 0)
        return refusal("404 Not Found");
    return response("200 OK", "text/plain; version=0.0.4; charset=utf-8", page());
}

MetricsHttp::~MetricsHttp()
{
    close_all();
}

void MetricsHttp::listen_on(int fd)
{
    listen_fd_ = fd;
    set_nonblocking(fd);
}

void MetricsHttp::want(std::vector<pollfd> &fds) const
{
    if (listen_fd_ < 0)
        return;
    fds.push_back({listen_fd_, POLLIN, 0});
    for (const Client &c : clients_)
        fds.push_back({c.fd, static_cast<short>(c.out.empty() ? POLLIN : POLLOUT), 0});
}

void MetricsHttp::serve(const std::vector<pollfd> &fds, size_t first,
                        const std::function<std::string()> &page)
{
    if (listen_fd_ < 0 || first >= fds.size())
        return;
    bool incoming = (fds[first].revents & POLLIN) != 0;
    long long now = monotonic_ms();
    std::vector<Client> kept;
    for (size_t i = 0; i < clients_.size(); ++i) {
        Client &c = clients_[i];
        size_t at = first + 1 + i;
        bool ready = at < fds.size() && fds[at].fd == c.fd && fds[at].revents != 0;
        bool going = now < c.deadline;
        if (going && ready)
            going = c.out.empty() ? read_request(c, page) : write_response(c);
        if (going)
            kept.push_back(std::move(c));
        else
            close(c.fd);
    }
    clients_ = std::move(kept);
    if (incoming)
        accept_clients();
}

void MetricsHttp::accept_clients()
{
    // A few a turn: a flood of connections takes turns with the FTP port's
    // clients instead of holding the loop.
    for (int taken = 0; taken < 2 * max_connections; ++taken) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0)
            return;
        if (clients_.size() >= max_connections) {
            close(fd); // a scraper is never this many at once: somebody floods
            continue;
        }
        clients_.push_back(Client{fd, monotonic_ms() + deadline_ms_, {}, {}});
    }
}

bool MetricsHttp::read_request(Client &c, const std::function<std::string()> &page)
{
    char buf[2048];
    for (;;) {
        ssize_t n = recv(c.fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK;
        if (n == 0)
            return false; // gone before asking
        c.in.append(buf, static_cast<size_t>(n));
        if (size_t end = header_end(c.in)) {
            c.out = metrics_response(c.in.substr(0, end), page);
            return write_response(c);
        }
        if (c.in.size() > max_request) {
            c.out = refusal("400 Bad Request");
            return write_response(c);
        }
    }
}

bool MetricsHttp::write_response(Client &c)
{
    while (c.sent < c.out.size()) {
        ssize_t n = send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK;
        c.sent += static_cast<size_t>(n);
    }
    shutdown(c.fd, SHUT_WR);
    return false;
}

void MetricsHttp::close_all()
{
    for (const Client &c : clients_)
        close(c.fd);
    clients_.clear();
    if (listen_fd_ >= 0)
        close(listen_fd_);
    listen_fd_ = -1;
}

} // namespace tarvex_server
