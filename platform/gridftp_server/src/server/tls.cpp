#include "tls.h"

#include <openssl/err.h>

namespace tarvex_server {

namespace {

std::string last_ssl_error()
{
    unsigned long code = ERR_peek_last_error();
    if (code == 0)
        return "unknown TLS error";
    char buf[256];
    ERR_error_string_n(code, buf, sizeof buf);
    return buf;
}

} // namespace

SSL_CTX *make_tls_context(const std::string &cert, const std::string &key, std::string &err)
{
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        err = last_ssl_error();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    // Writes may be retried from a different (moved) buffer position and
    // may complete in parts: the connection layer loops on them.
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // Many FTP clients end a data connection with a plain TCP close rather
    // than close_notify; the end of a stream-mode transfer is the end of the
    // connection, so treat that as end of data instead of as an error.
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    // Clients resume the control connection's session on data connections.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER);
    static const unsigned char sid_ctx[] = "tarvex-gridftp-server";
    SSL_CTX_set_session_id_context(ctx, sid_ctx, sizeof sid_ctx - 1);

    if (SSL_CTX_use_certificate_chain_file(ctx, cert.c_str()) != 1) {
        err = cert + ": " + last_ssl_error();
    } else if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1) {
        err = key + ": " + last_ssl_error();
    } else if (SSL_CTX_check_private_key(ctx) != 1) {
        err = "the key does not match the certificate";
    } else {
        return ctx;
    }
    SSL_CTX_free(ctx);
    return nullptr;
}

} // namespace tarvex_server
