// Setting up data connections: passive (PASV, EPSV) and active (PORT, EPRT).
//
// A passive listener accepts only a connection from the control
// connection's peer address; an active connection goes only to that address
// and never to a privileged port, so the server cannot be used to reach
// third parties (RFC 2577).
#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "conn.h"

namespace tarvex_server {

struct Endpoints {
    sockaddr_storage local{};  // the control connection's local address
    sockaddr_storage peer{};   // the client
};

class DataSetup {
public:
    ~DataSetup();

    // Opens a passive listener; `reply` becomes the 227 or 229 text.
    bool passive(const Endpoints &ep, bool extended, int low, int high, std::string &reply);
    // The client's address of a PORT or EPRT (parse.h); false with a reason
    // when it is not the client's own host or names a privileged port.
    bool active(const Endpoints &ep, const sockaddr_storage &target, std::string &why);

    bool ready() const { return listen_fd_ >= 0 || have_target_; }
    void reset();
    // Moves this setup (a listener with the connection a client may
    // already have made to it) into `keeper`, leaving this one unset.
    void hand_over(DataSetup &keeper);

    // Runs on a new data connection before it is taken (a TLS handshake
    // and its checks, within `timeout_ms`); false with a reason refuses the
    // connection.
    using Vetter = std::function<bool(Conn &, int timeout_ms, std::string &why)>;

    // Accepts or connects, giving up at `timeout_ms` or when `cancel_fd`
    // fires.  One use: the setup is reset afterwards.  A passive listener
    // closes an accepted connection that `vet` refuses and goes on waiting
    // for the client's own until the time is up: another local process
    // that reached the port first gets nothing, and does not spoil the
    // transfer either.
    std::unique_ptr<Conn> open(int timeout_ms, int cancel_fd, std::string &why,
                               const Vetter &vet = {});

private:
    int listen_fd_ = -1;
    sockaddr_storage peer_{};
    sockaddr_storage target_{};
    bool have_target_ = false;
};

// The numeric host of an address, and whether two addresses are the same
// host (IPv4-mapped IPv6 compares equal to IPv4).
std::string host_of(const sockaddr_storage &sa);
bool same_host(const sockaddr_storage &a, const sockaddr_storage &b);

} // namespace tarvex_server
