// The listening process: accepts connections and forks one session process
// per client.  It never calls the plug-in itself, so a session that crashes
// (or a plug-in that does) takes down only its own client.
#pragma once

#include "session.h"

namespace tarvex_server {

// Binds the listening socket; -1 with `err` on failure.  `port` becomes the
// port actually bound.
int open_listener(const Options &opts, int &port, std::string &err);

// Serves until SIGTERM or SIGINT; returns the exit status.  SIGHUP reopens
// the transfer log.
int serve(int listen_fd, const ServerContext &ctx);

// In a session process: SIGTERM (the server stopping, or an operator) ended
// the session.
bool session_terminated_by_signal();

} // namespace tarvex_server
