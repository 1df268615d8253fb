// The TLS server context for AUTH TLS (RFC 4217): control and protected
// data connections use the same certificate.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace tarvex_server {

// Loads the certificate chain and key; NULL with `err` on failure.  Every
// session ticket issued on a connection whose SSL carries a mark as its
// app data (TlsSetup::mark_sessions, conn.h) carries that mark too.
SSL_CTX *make_tls_context(const std::string &cert, const std::string &key, std::string &err);

// Puts `mark` into the session of `ssl` (and so into its tickets); false
// when memory runs out.
bool mark_session(SSL *ssl, const std::string &mark);

} // namespace tarvex_server
