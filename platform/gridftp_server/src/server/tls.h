// The TLS server context for AUTH TLS (RFC 4217): control and protected
// data connections use the same certificate.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace tarvex_server {

// Loads the certificate chain and key; NULL with `err` on failure ("cannot
// read TLS key PATH: Permission denied", ...).  Every
// session ticket issued on a connection whose SSL carries a mark as its
// app data (TlsSetup::mark_sessions, conn.h) carries that mark too.
SSL_CTX *make_tls_context(const std::string &cert, const std::string &key, std::string &err);

// The certificate of `ctx` for an operator: its subject, the end of its
// validity and the start of its SHA-256 fingerprint (which tells two
// certificates apart).
std::string describe_certificate(SSL_CTX *ctx);

// Puts `mark` into the session of `ssl` (and so into its tickets); false
// when memory runs out.
bool mark_session(SSL *ssl, const std::string &mark);

// The marks of TLS sessions (TlsSetup, conn.h).  A session mark is random
// per session process: the control connection's sessions and tickets
// carry it.  A user mark is the digest of a login name (with a password
// file), which the session registers with its session mark
// (mark_registry.h) so that a data connection of another session of the
// same user may resume this control connection's session.  Empty when no
// mark can be made.
std::string random_session_mark();
std::string user_session_mark(const std::string &user);

} // namespace tarvex_server
