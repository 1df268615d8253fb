// The listening process: accepts connections and forks one session process
// per client.  It never calls the plug-in itself, so a session that crashes
// (or a plug-in that does) takes down only its own client.
#pragma once

#include "metrics_http.h"
#include "session.h"

namespace tarvex_server {

// The sockets the listening process accepts on.
struct ListenSockets {
    int ftp = -1;
    int implicit_tls = -1;          // --implicit-tls-port; -1: none
    MetricsHttp *metrics = nullptr; // --metrics-listen; NULL: none
};

// Binds the listening socket; -1 with `err` on failure.  `port` becomes the
// port actually bound.
int open_listener(const Options &opts, int &port, std::string &err);
// The same on `bind` port `wanted` (0: any).
int open_listener_on(const std::string &bind, int wanted, int &port, std::string &err);

// Serves until SIGTERM or SIGINT; returns the exit status.  SIGHUP reopens
// the transfer log and the audit log and reads the setup again
// (ctx.reload).  Clients of sockets.implicit_tls speak TLS from the first
// byte; sockets.metrics answers GET /metrics.
//
// Session places: at most --max-sessions sessions, and at most
// --max-sessions-per-address from one client address.  A connection that
// finds no place left takes the place of a session that has not logged in
// yet (a stranger's), if there is one: the oldest stranger of the address
// that holds the most strangers (of its own address, when its address has
// no place left).  So connections that never log in (64 of them from 8
// addresses held every place until the login deadline) cannot keep out a
// client that logs in promptly, and one flooding address replaces its own
// connections first.  Sessions that have logged in keep their places.
int serve(const ListenSockets &sockets, const ServerContext &ctx);

// In a session process: SIGTERM (the server stopping, or an operator) ended
// the session.
bool session_terminated_by_signal();

// In a session process: tells the listening process that the session has
// logged in, so that it no longer counts as a stranger's (see serve()).
void report_login();

} // namespace tarvex_server
