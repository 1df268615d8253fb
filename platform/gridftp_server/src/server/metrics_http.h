// The HTTP side of --metrics-listen: a small HTTP/1.0 responder that the
// listening process runs in its own poll loop.
//
// It answers GET /metrics with the page it is handed and nothing else
// (405 for other methods, 404 for other paths, 400 for what is not a
// request), one request per connection, then closes.  Every socket is
// non-blocking: a scraper that sends slowly or reads slowly costs the
// listening process nothing but a slot, for at most its deadline (5 s), and
// never holds up the accepting of FTP clients.  A thread would do the same
// more simply, but the listening process forks a session for each client,
// and forking a process that runs threads is what sanitizer builds refuse.
#pragma once

#include <poll.h>

#include <functional>
#include <string>
#include <vector>

namespace tarvex_server {

class MetricsHttp {
public:
    static constexpr int max_connections = 8;
    static constexpr size_t max_request = 8192;

    // `deadline_ms`: how long a connection may take from being accepted
    // to its response's end.
    explicit MetricsHttp(int deadline_ms = 5000) : deadline_ms_(deadline_ms) {}
    MetricsHttp(const MetricsHttp &) = delete;
    MetricsHttp &operator=(const MetricsHttp &) = delete;
    ~MetricsHttp();

    // Takes the listening socket (made non-blocking here).
    void listen_on(int fd);
    bool listening() const { return listen_fd_ >= 0; }

    // The descriptors to poll and what for, appended to `fds`.
    void want(std::vector<pollfd> &fds) const;
    // After poll(): serves what became ready among the descriptors want()
    // appended, from `fds[first]` on; ends connections past their deadline.
    // `page` makes the body of GET /metrics.
    void serve(const std::vector<pollfd> &fds, size_t first,
               const std::function<std::string()> &page);

    // In a session process: closes every descriptor without a word.
    void close_all();

private:
    struct Client {
        int fd;
        long long deadline;
        std::string in;
        std::string out;       // the response, once the request is whole
        size_t sent = 0;
    };
    void accept_clients();
    // false when the connection is over
    bool read_request(Client &c, const std::function<std::string()> &page);
    bool write_response(Client &c);

    int deadline_ms_;
    int listen_fd_ = -1;
    std::vector<Client> clients_;
};

// The response to `request` (the bytes up to and including the blank line
// that ends its header).
std::string metrics_response(const std::string &request,
                             const std::function<std::string()> &page);

} // namespace tarvex_server
