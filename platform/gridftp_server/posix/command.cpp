// MKD, RMD, DELE, RNTO and SITE RDEL; CKSM lives in checksum.cpp.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "posix.h"

namespace tarvex_posix {

namespace {

// Folders nested deeper than this are not removed by SITE RDEL (the walk is
// recursive; a tree this deep is an attack or an accident).
constexpr int max_depth = 256;

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0)
            close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

// Removes `name` in `dirfd` and everything below it.  Links are removed,
// never followed.
int remove_tree(int dirfd, const char *name, int depth)
{
    struct stat st{};
    if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    if (!S_ISDIR(st.st_mode))
        return unlinkat(dirfd, name, 0);
    if (depth >= max_depth) {
        errno = ELOOP;
        return -1;
    }
    int fd = openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    DIR *dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return -1;
    }
    std::vector<std::string> names;
    while (dirent *d = readdir(dir)) {
        std::string n = d->d_name;
        if (n != "." && n != "..")
            names.push_back(std::move(n));
    }
    int rc = 0;
    for (const std::string &n : names)
        if (remove_tree(::dirfd(dir), n.c_str(), depth + 1) != 0) {
            rc = -1;
            break;
        }
    int saved = errno;
    closedir(dir);
    errno = saved;
    if (rc != 0)
        return rc;
    return unlinkat(dirfd, name, AT_REMOVEDIR);
}

tarvex_result_t in_parent(Session &s, const char *path, int (*fn)(int, const char *))
{
    std::string name;
    Fd parent(open_parent(s, path, name));
    if (parent.fd < 0 || fn(parent.fd, name.c_str()) != 0)
        return errno_result(errno, path);
    return TARVEX_SUCCESS;
}

tarvex_result_t rename_item(Session &s, const char *from, const char *to)
{
    if (from == nullptr)
        return make_error(503, "BAD_SEQUENCE", "GridFTP-Error: rename without a source.");
    std::string from_name;
    std::string to_name;
    Fd fp(open_parent(s, from, from_name));
    if (fp.fd < 0)
        return errno_result(errno, from);
    Fd tp(open_parent(s, to, to_name));
    if (tp.fd < 0)
        return errno_result(errno, to);
    if (renameat(fp.fd, from_name.c_str(), tp.fd, to_name.c_str()) != 0)
        return errno_result(errno, to);
    return TARVEX_SUCCESS;
}

} // namespace

namespace {

void run_command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, void *arg)
{
    auto &s = *static_cast<Session *>(arg);
    const char *path = info->pathname;
    tarvex_result_t r = TARVEX_SUCCESS;
    switch (info->command) {
    case TARVEX_GFS_CMD_MKD:
        r = in_parent(s, path, [](int d, const char *n) { return mkdirat(d, n, 0777); });
        break;
    case TARVEX_GFS_CMD_RMD:
        r = in_parent(s, path, [](int d, const char *n) { return unlinkat(d, n, AT_REMOVEDIR); });
        break;
    case TARVEX_GFS_CMD_DELE:
        r = in_parent(s, path, [](int d, const char *n) {
            struct stat st{};
            if (fstatat(d, n, &st, AT_SYMLINK_NOFOLLOW) != 0)
                return -1;
            if (S_ISDIR(st.st_mode)) {
                errno = EISDIR; // folders go with RMD
                return -1;
            }
            return unlinkat(d, n, 0);
        });
        break;
    case TARVEX_GFS_CMD_SITE_RDEL:
        r = in_parent(s, path, [](int d, const char *n) { return remove_tree(d, n, 0); });
        break;
    case TARVEX_GFS_CMD_SITE_CHMOD: {
        // The mode goes on the item itself: a link is not followed (Linux
        // cannot change a link's own mode, so that fails, as it should).
        std::string name;
        Fd parent(open_parent(s, path, name));
        if (parent.fd < 0 ||
            fchmodat(parent.fd, name.c_str(), static_cast<mode_t>(info->chmod_mode & 07777),
                     AT_SYMLINK_NOFOLLOW) != 0)
            r = errno_result(errno, path);
        break;
    }
    case TARVEX_GFS_CMD_RNTO:
        r = rename_item(s, info->from_pathname, path);
        break;
    case TARVEX_GFS_CMD_CKSM:
        checksum(op, info, s);
        return;
    default:
        r = make_error(502, "NOT_IMPLEMENTED", "GridFTP-Error: command not implemented.");
        break;
    }
    tarvex_gridftp_server_finished_command(op, r, nullptr);
}

} // namespace

void command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, void *arg)
{
    guarded_entry([&] { run_command(op, info, arg); },
                  [&](tarvex_result_t r) { tarvex_gridftp_server_finished_command(op, r, nullptr); });
}

} // namespace tarvex_posix
