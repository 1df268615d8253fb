#include "tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

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

// OpenSSL calls this (from C) just before it makes a session ticket: a
// ticket of the control connection gets its mark.  A data connection's SSL
// carries no mark: the session it resumed keeps the mark it had, and a
// session of a full handshake there (somebody else's) gets none.
int mark_ticket(SSL *ssl, void *) noexcept
{
    const auto *mark = static_cast<const std::string *>(SSL_get_app_data(ssl));
    if (mark == nullptr)
        return 1;
    return mark_session(ssl, *mark) ? 1 : 0;
}

} // namespace

bool mark_session(SSL *ssl, const std::string &mark)
{
    SSL_SESSION *session = SSL_get_session(ssl);
    return session != nullptr &&
           SSL_SESSION_set1_ticket_appdata(session, mark.data(), mark.size()) == 1;
}

std::string random_session_mark()
{
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        return ""; // no mark: no data connection resumes into this session
    return "S" + std::string(reinterpret_cast<const char *>(bytes), sizeof bytes);
}

std::string user_session_mark(const std::string &user)
{
    // A digest keeps tickets small whatever the name's length; the prefix
    // keeps it apart from any other digest of the name.
    std::string input = "tarvex-gridftp-server user";
    input += '\0';
    input += user;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        return "";
    return "U" + std::string(reinterpret_cast<const char *>(digest), length);
}

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
    // A plain TCP close without close_notify stays visible (Conn reports
    // it as an unconfirmed end): many FTP clients end data connections so,
    // and an upload that ends so is taken but marked, or refused with
    // --tls-strict-eof.
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
    // Clients resume the control connection's session on data connections.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER);
    static const unsigned char sid_ctx[] = "tarvex-gridftp-server";
    SSL_CTX_set_session_id_context(ctx, sid_ctx, sizeof sid_ctx - 1);
    // Data connections prove they come from the client that holds the
    // control connection by resuming its session: its tickets are marked.
    SSL_CTX_set_session_ticket_cb(ctx, mark_ticket, nullptr, nullptr);

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
