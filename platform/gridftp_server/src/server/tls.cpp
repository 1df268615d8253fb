#include "tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

// Whether `path` can be opened for reading; `err` says why not.
bool readable(const char *what, const std::string &path, std::string &err)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        err = std::string("cannot read ") + what + " " + path + ": " + strerror(errno);
        return false;
    }
    close(fd);
    return true;
}

} // namespace

std::string describe_certificate(SSL_CTX *ctx)
{
    X509 *cert = SSL_CTX_get0_certificate(ctx);
    if (cert == nullptr)
        return "no certificate";
    std::string out = "subject ";
    char *subject = X509_NAME_oneline(X509_get_subject_name(cert), nullptr, 0);
    out += subject != nullptr ? subject : "?";
    OPENSSL_free(subject);
    BIO *bio = BIO_new(BIO_s_mem());
    if (bio != nullptr && ASN1_TIME_print(bio, X509_get0_notAfter(cert)) == 1) {
        char *text = nullptr;
        long n = BIO_get_mem_data(bio, &text);
        out += ", valid until " + std::string(text, static_cast<size_t>(n));
    }
    BIO_free(bio);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(cert, EVP_sha256(), digest, &length) == 1) {
        static const char hex[] = "0123456789ABCDEF";
        out += ", SHA-256 ";
        for (unsigned int i = 0; i < length && i < 8; ++i) {
            out += hex[digest[i] >> 4];
            out += hex[digest[i] & 15];
        }
        out += "...";
    }
    return out;
}

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

    // OpenSSL says only "system lib" of a file it cannot open: the
    // operator is told which file and why first.
    if (!readable("TLS certificate", cert, err) || !readable("TLS key", key, err)) {
        // err names the file
    } else if (SSL_CTX_use_certificate_chain_file(ctx, cert.c_str()) != 1) {
        err = "TLS certificate " + cert + ": not a PEM certificate chain (" + last_ssl_error() +
              ")";
    } else if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1) {
        err = "TLS key " + key + ": not a PEM private key (" + last_ssl_error() + ")";
    } else if (SSL_CTX_check_private_key(ctx) != 1) {
        err = "TLS key " + key + " does not match the certificate " + cert;
    } else {
        return ctx;
    }
    SSL_CTX_free(ctx);
    return nullptr;
}

} // namespace tarvex_server
