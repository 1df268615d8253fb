// The TLS server context for AUTH TLS (RFC 4217): control and protected
// data connections use the same certificate.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace tarvex_server {

// Loads the certificate chain and key; NULL with `err` on failure.
SSL_CTX *make_tls_context(const std::string &cert, const std::string &key, std::string &err);

} // namespace tarvex_server
