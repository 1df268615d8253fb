// CKSM: MD5 or SHA1 of a file or of a byte range, with progress replies.
#include <fcntl.h>
#include <openssl/evp.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "posix.h"

namespace tarvex_posix {

namespace {

constexpr size_t chunk = size_t{1024} * 1024;

const EVP_MD *digest_for(const char *alg)
{
    if (alg == nullptr)
        return nullptr;
    if (strcasecmp(alg, "MD5") == 0)
        return EVP_md5();
    if (strcasecmp(alg, "SHA1") == 0 || strcasecmp(alg, "SHA-1") == 0)
        return EVP_sha1();
    return nullptr;
}

} // namespace

void checksum(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, Session &s)
{
    const char *path = info->pathname;
    const EVP_MD *md = digest_for(info->cksm_alg);
    if (md == nullptr) {
        tarvex_gridftp_server_finished_command(
            op,
            make_error(504, "NOT_IMPLEMENTED",
                       std::string("GridFTP-Error: checksum algorithm ") +
                           (info->cksm_alg ? info->cksm_alg : "") + " is not supported."),
            nullptr);
        return;
    }
    if (info->cksm_offset < 0 || info->cksm_length < -1) {
        tarvex_gridftp_server_finished_command(
            op, make_error(501, "BAD_RANGE", "GridFTP-Error: bad checksum range."), nullptr);
        return;
    }
    int fd = open_beneath(s, relative(path), O_RDONLY);
    struct stat st{};
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close(fd);
        fd = -1;
        errno = EISDIR;
    }
    if (fd < 0) {
        tarvex_gridftp_server_finished_command(op, errno_result(errno, path), nullptr);
        return;
    }

    int interval = 0;
    tarvex_gridftp_server_get_update_interval(op, &interval);
    time_t due = interval > 0 ? time(nullptr) + interval : 0;

    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::vector<unsigned char> buf(chunk);
    tarvex_result_t r = TARVEX_SUCCESS;
    if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1)
        r = make_error(451, "INTERNAL_ERROR", "GridFTP-Error: digest unavailable.");
    off_t pos = info->cksm_offset;
    long long left = info->cksm_length; // -1: to the end
    long long total = 0;
    while (r == TARVEX_SUCCESS && left != 0) {
        // A range of a sparse file can be huge and cost nothing but time:
        // a cancelled operation stops between chunks.
        if (tarvex_gridftp_server_operation_cancelled(op)) {
            r = cancelled_result("the checksum");
            break;
        }
        size_t want = left < 0 || static_cast<unsigned long long>(left) > chunk
                          ? chunk
                          : static_cast<size_t>(left);
        ssize_t n = pread(fd, buf.data(), want, pos);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            r = errno_result(errno, path);
            break;
        }
        if (n == 0)
            break; // the range ends at the end of the file
        EVP_DigestUpdate(ctx.get(), buf.data(), static_cast<size_t>(n));
        pos += n;
        total += n;
        if (left > 0)
            left -= n;
        if (due != 0 && time(nullptr) >= due) {
            char text[64];
            snprintf(text, sizeof text, "%lld", total);
            tarvex_gridftp_server_intermediate_command(op, TARVEX_SUCCESS, text);
            due = time(nullptr) + interval;
        }
    }
    close(fd);
    if (r != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_command(op, r, nullptr);
        return;
    }
    unsigned char md_value[EVP_MAX_MD_SIZE];
    unsigned int md_len = 0;
    EVP_DigestFinal_ex(ctx.get(), md_value, &md_len);
    char hex[EVP_MAX_MD_SIZE * 2 + 1];
    for (size_t i = 0; i < md_len; ++i)
        snprintf(hex + 2 * i, 3, "%02x", md_value[i]);
    hex[2 * size_t{md_len}] = '\0';
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, hex);
}

} // namespace tarvex_posix
