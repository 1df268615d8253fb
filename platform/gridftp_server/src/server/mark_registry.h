// Which user each control connection's TLS sessions belong to, known to
// every session process of one listening process.
//
// Under PROT P a data connection must resume a TLS session the server gave
// to a control connection (see tls.h): a local process that reaches the
// passive port first cannot, so it gets no data.  A session resumed from
// this session's own control connection always lets its data connection
// in.  Clients that pool connections share one TLS session cache among
// them, so their data connections resume whichever session came last,
// often one of another of their connections (rclone did so, and got 425).
// Each of those connections logged in as the same user with the same
// password, so a session given to another control connection lets a data
// connection in too when that connection logged in as the same user, with
// a password file.  Under --anonymous-map any name logs in with any
// password, so a login proves nothing there: only the own session counts.
//
// Sessions are processes of their own.  A ticket another process issued is
// read because every session process has the ticket key of the listening
// process's SSL_CTX (made once, before any fork); the ticket carries that
// control connection's session mark, which neither a client nor another
// process can read or make up (tickets are encrypted and authenticated with
// the key).  This registry says whose the mark is: a record per session
// process, in memory the listening process maps before it forks, holding
// the session mark from the start and the digest of the user name once
// logged in.  A record outlives its session (a client may still hold that
// connection's ticket) until the listening process gives it to a new one,
// the records used longest ago first.  A connection that has not logged
// in yet is waited for a little (a pooled client's newest ticket is often
// that of a connection still logging in); one that never logs in, or that
// belongs to another user, lets no data connection in.  The records hold
// random marks and digests of login names, nothing a client could use.
#pragma once

#include <functional>
#include <string>

namespace tarvex_server::mark_registry {

// ---- the listening process ----
// Maps room for `records` records; false with `err` (data connections are
// then let in by their own session only).
bool open(int records, std::string &err);
// The record for the next session process, cleared: the one used longest
// ago that no running session process holds (`held`).  -1 without a
// registry.
int assign(const std::function<bool(int)> &held);
// The session process holding `record` has ended: if it never logged in,
// its mark never will.
void release(int record);

// ---- a session process ----
// Its own record (-1: none), set in the new process right after the fork.
void enter(int record);
void started(const std::string &session_mark);
void logged_in(const std::string &user_mark);

// ---- a data connection's check ----
// Whether a data connection that resumed a session marked `presented`
// (Conn::tls_resumed_mark()) is let into the session whose marks are `own`
// and `user` (empty: not logged in with a password).  Waits at most
// `timeout_ms`, or until `cancel_fd` is readable, for the login of a
// connection still logging in.
bool admits(const std::string &presented, const std::string &own, const std::string &user,
            int timeout_ms, int cancel_fd);

} // namespace tarvex_server::mark_registry
