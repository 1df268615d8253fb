#include "data_channel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <random>

namespace tarvex_server {

namespace {

constexpr int socket_buffer = 4 * 1024 * 1024;
constexpr long long wait_after_refusal_ms = 2000;

// IPv4-mapped IPv6 addresses become plain IPv4.
sockaddr_storage unmapped(const sockaddr_storage &sa)
{
    if (sa.ss_family != AF_INET6)
        return sa;
    auto *s6 = reinterpret_cast<const sockaddr_in6 *>(&sa);
    if (!IN6_IS_ADDR_V4MAPPED(&s6->sin6_addr))
        return sa;
    sockaddr_storage out{};
    auto *s4 = reinterpret_cast<sockaddr_in *>(&out);
    s4->sin_family = AF_INET;
    s4->sin_port = s6->sin6_port;
    memcpy(&s4->sin_addr, &s6->sin6_addr.s6_addr[12], 4);
    return out;
}

socklen_t sa_len(const sockaddr_storage &sa)
{
    return sa.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

void set_port(sockaddr_storage &sa, int port)
{
    if (sa.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in *>(&sa)->sin_port = htons(static_cast<uint16_t>(port));
    else
        reinterpret_cast<sockaddr_in6 *>(&sa)->sin6_port = htons(static_cast<uint16_t>(port));
}

int port_of(const sockaddr_storage &sa)
{
    if (sa.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in *>(&sa)->sin_port);
    return ntohs(reinterpret_cast<const sockaddr_in6 *>(&sa)->sin6_port);
}

void tune(int fd)
{
    int sz = socket_buffer;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &sz, sizeof sz);
}

} // namespace

std::string host_of(const sockaddr_storage &in)
{
    sockaddr_storage sa = unmapped(in);
    char buf[INET6_ADDRSTRLEN] = "";
    if (sa.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(&sa)->sin_addr, buf, sizeof buf);
    else
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(&sa)->sin6_addr, buf, sizeof buf);
    return buf;
}

bool same_host(const sockaddr_storage &a, const sockaddr_storage &b)
{
    sockaddr_storage x = unmapped(a);
    sockaddr_storage y = unmapped(b);
    if (x.ss_family != y.ss_family)
        return false;
    if (x.ss_family == AF_INET)
        return reinterpret_cast<sockaddr_in *>(&x)->sin_addr.s_addr ==
               reinterpret_cast<sockaddr_in *>(&y)->sin_addr.s_addr;
    return memcmp(&reinterpret_cast<sockaddr_in6 *>(&x)->sin6_addr,
                  &reinterpret_cast<sockaddr_in6 *>(&y)->sin6_addr, sizeof(in6_addr)) == 0;
}

DataSetup::~DataSetup()
{
    reset();
}

void DataSetup::reset()
{
    if (listen_fd_ >= 0)
        close(listen_fd_);
    listen_fd_ = -1;
    have_target_ = false;
}

void DataSetup::hand_over(DataSetup &keeper)
{
    keeper.reset();
    keeper.listen_fd_ = listen_fd_;
    keeper.peer_ = peer_;
    keeper.target_ = target_;
    keeper.have_target_ = have_target_;
    listen_fd_ = -1;
    have_target_ = false;
}

bool DataSetup::passive(const Endpoints &ep, bool extended, int low, int high, std::string &reply)
{
    reset();
    // Listen on the address the client reached us at, so that the reply
    // names an address it can use.
    sockaddr_storage addr = extended ? ep.local : unmapped(ep.local);
    if (!extended && addr.ss_family != AF_INET) {
        reply = "PASV needs IPv4; use EPSV";
        return false;
    }
    int fd = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        reply = strerror(errno);
        return false;
    }
    tune(fd);
    bool bound = false;
    if (low > 0) {
        int span = high - low + 1;
        int start = static_cast<int>(std::random_device{}() % static_cast<unsigned>(span));
        for (int i = 0; i < span && !bound; ++i) {
            set_port(addr, low + (start + i) % span);
            bound = bind(fd, reinterpret_cast<sockaddr *>(&addr), sa_len(addr)) == 0;
        }
    } else {
        set_port(addr, 0);
        bound = bind(fd, reinterpret_cast<sockaddr *>(&addr), sa_len(addr)) == 0;
    }
    if (!bound || listen(fd, 1) != 0) {
        reply = "no passive port available";
        close(fd);
        return false;
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    int port = port_of(addr);
    listen_fd_ = fd;
    peer_ = ep.peer;
    char buf[128];
    if (extended) {
        snprintf(buf, sizeof buf, "Entering Extended Passive Mode (|||%d|)", port);
    } else {
        auto *s4 = reinterpret_cast<sockaddr_in *>(&addr);
        unsigned char *b = reinterpret_cast<unsigned char *>(&s4->sin_addr);
        snprintf(buf, sizeof buf, "Entering Passive Mode (%u,%u,%u,%u,%d,%d).", b[0], b[1], b[2],
                 b[3], port >> 8, port & 255);
    }
    reply = buf;
    return true;
}

bool DataSetup::active(const Endpoints &ep, const sockaddr_storage &address, std::string &why)
{
    reset();
    sockaddr_storage target = address;
    int port = port_of(target);
    if (!same_host(target, ep.peer)) {
        why = "Data connections go only to the client's own address";
        return false;
    }
    if (port < 1024) {
        why = "Data connections to privileged ports are refused";
        return false;
    }
    target = unmapped(target);
    // Connect from the family of the control connection's peer.
    if (unmapped(ep.peer).ss_family != ep.peer.ss_family) {
        // Control is on an IPv6 socket with a mapped peer: connect as mapped.
        target = ep.peer;
    }
    set_port(target, port);
    target_ = target;
    have_target_ = true;
    return true;
}

std::unique_ptr<Conn> DataSetup::open(int timeout_ms, int cancel_fd, std::string &why,
                                      const Vetter &vet)
{
    long long deadline = now_ms() + timeout_ms;
    if (listen_fd_ >= 0) {
        int lfd = listen_fd_;
        std::string refused; // why the last connection was turned away
        for (;;) {
            long long rest = deadline - now_ms();
            pollfd p[2] = {{lfd, POLLIN, 0}, {cancel_fd, POLLIN, 0}};
            int n = rest > 0 ? poll(p, cancel_fd >= 0 ? 2 : 1, static_cast<int>(rest)) : 0;
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0 || (cancel_fd >= 0 && (p[1].revents & POLLIN))) {
                why = n != 0 ? "cancelled"
                      : refused.empty() ? "the client did not connect"
                                        : refused;
                reset();
                return nullptr;
            }
            sockaddr_storage from{};
            socklen_t len = sizeof from;
            int fd = accept4(lfd, reinterpret_cast<sockaddr *>(&from), &len, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            if (!same_host(from, peer_)) {
                close(fd); // somebody else raced for the port
                continue;
            }
            auto conn = std::make_unique<Conn>(fd);
            int left = static_cast<int>(std::max(1LL, deadline - now_ms()));
            if (vet && !vet(*conn, left, refused)) {
                // Not the client's own connection.  The client connects as
                // soon as it has the port, so its connection is already
                // waiting or comes within moments; a client that cannot
                // pass (no session resumed) is not kept waiting long.
                deadline = std::min(deadline, now_ms() + wait_after_refusal_ms);
                continue;
            }
            reset();
            return conn;
        }
    }
    if (!have_target_) {
        why = "Use PORT, EPRT, PASV or EPSV first";
        return nullptr;
    }
    sockaddr_storage target = target_;
    reset();
    int fd = socket(target.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = strerror(errno);
        return nullptr;
    }
    tune(fd);
    auto conn = std::make_unique<Conn>(fd);
    if (connect(fd, reinterpret_cast<sockaddr *>(&target), sa_len(target)) != 0 &&
        errno != EINPROGRESS) {
        why = strerror(errno);
        return nullptr;
    }
    long long rest = deadline - now_ms();
    pollfd p[2] = {{fd, POLLOUT, 0}, {cancel_fd, POLLIN, 0}};
    int n = rest > 0 ? poll(p, cancel_fd >= 0 ? 2 : 1, static_cast<int>(rest)) : 0;
    int soerr = 0;
    socklen_t sl = sizeof soerr;
    if (n <= 0 || (cancel_fd >= 0 && (p[1].revents & POLLIN)) ||
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &sl) != 0 || soerr != 0) {
        why = soerr != 0 ? strerror(soerr) : "cannot connect";
        return nullptr;
    }
    if (vet && !vet(*conn, static_cast<int>(std::max(1LL, deadline - now_ms())), why))
        return nullptr;
    return conn;
}

} // namespace tarvex_server
