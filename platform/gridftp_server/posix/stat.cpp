// Stat: one item, or a folder listing streamed in batches.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "posix.h"

namespace tarvex_posix {

namespace {

constexpr int batch_size = 100;

struct Entry {
    std::string name;
    std::string target; // of a symbolic link that is shown as a link
    struct stat st{};
};

void fill(tarvex_gridftp_server_control_stat_t &out, Entry &e)
{
    out = {};
    out.mode = static_cast<int>(e.st.st_mode);
    out.nlink = static_cast<int>(e.st.st_nlink);
    out.name = e.name.data();
    out.symlink_target = e.target.empty() ? nullptr : e.target.data();
    out.uid = e.st.st_uid;
    out.gid = e.st.st_gid;
    out.size = e.st.st_size;
    out.atime = e.st.st_atime;
    out.ctime = e.st.st_ctime;
    out.mtime = e.st.st_mtime;
    out.dev = static_cast<int>(e.st.st_dev);
    out.ino = static_cast<int>(e.st.st_ino);
}

// An item's attributes: a link that stays inside the root shows its
// target; one that leads out (or nowhere) shows as the link itself.
int stat_item(const Session &s, const std::string &rel, int dirfd, const char *name, Entry &e)
{
    if (fstatat(dirfd, name, &e.st, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    if (!S_ISLNK(e.st.st_mode))
        return 0;
    int fd = open_beneath(s, rel, O_PATH);
    if (fd >= 0) {
        struct stat target{};
        if (fstat(fd, &target) == 0)
            e.st = target;
        close(fd);
        return 0;
    }
    char buf[4096];
    ssize_t n = readlinkat(dirfd, name, buf, sizeof buf - 1);
    if (n > 0)
        e.target.assign(buf, static_cast<size_t>(n));
    return 0;
}

void stat_single(tarvex_gfs_operation_t op, const char *path, Session &s)
{
    std::string rel = relative(path);
    Entry e;
    e.name = path;
    int rc;
    if (rel == ".") {
        rc = fstat(s.root_fd, &e.st);
    } else {
        std::string name;
        int parent = open_parent(s, path, name);
        rc = parent < 0 ? -1 : stat_item(s, rel, parent, name.c_str(), e);
        int saved = errno;
        if (parent >= 0)
            close(parent);
        errno = saved;
    }
    if (rc != 0) {
        tarvex_gridftp_server_finished_stat(op, errno_result(errno, path), nullptr, 0);
        return;
    }
    tarvex_gridftp_server_control_stat_t out;
    fill(out, e);
    tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &out, 1);
}

void stat_listing(tarvex_gfs_operation_t op, const char *path, Session &s)
{
    std::string rel = relative(path);
    int fd = open_beneath(s, rel, O_RDONLY | O_DIRECTORY);
    if (fd < 0) {
        tarvex_gridftp_server_finished_stat(op, errno_result(errno, path), nullptr, 0);
        return;
    }
    DIR *dir = fdopendir(fd);
    if (dir == nullptr) {
        int err = errno;
        close(fd);
        tarvex_gridftp_server_finished_stat(op, errno_result(err, path), nullptr, 0);
        return;
    }
    std::unique_ptr<DIR, int (*)(DIR *)> guard(dir, closedir);

    std::vector<Entry> batch;
    batch.reserve(batch_size);
    auto send_batch = [&](bool final, tarvex_result_t result) {
        std::vector<tarvex_gridftp_server_control_stat_t> out(batch.size());
        for (size_t i = 0; i < batch.size(); ++i)
            fill(out[i], batch[i]);
        if (final)
            tarvex_gridftp_server_finished_stat(op, result, out.data(), static_cast<int>(out.size()));
        else
            tarvex_gridftp_server_finished_stat_partial(op, result, out.data(),
                                                        static_cast<int>(out.size()));
        batch.clear();
    };

    // The folder itself comes first, named ".".
    Entry self;
    self.name = ".";
    fstat(fd, &self.st);
    batch.push_back(std::move(self));

    std::string prefix = rel == "." ? "" : rel + "/";
    tarvex_result_t result = TARVEX_SUCCESS;
    for (;;) {
        if (tarvex_gridftp_server_operation_cancelled(op)) {
            result = cancelled_result("the listing");
            break;
        }
        errno = 0;
        dirent *d = readdir(dir);
        if (d == nullptr) {
            if (errno != 0)
                result = errno_result(errno, path);
            break;
        }
        if (d->d_name[0] == '.' && (d->d_name[1] == '\0' || (d->d_name[1] == '.' && d->d_name[2] == '\0')))
            continue;
        Entry e;
        e.name = d->d_name;
        if (stat_item(s, prefix + d->d_name, fd, d->d_name, e) != 0)
            continue; // removed while we listed
        batch.push_back(std::move(e));
        if (static_cast<int>(batch.size()) == batch_size)
            send_batch(false, TARVEX_SUCCESS);
    }
    send_batch(true, result);
}

} // namespace

void stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *arg)
{
    auto &s = *static_cast<Session *>(arg);
    guarded_entry(
        [&] {
            if (info->file_only)
                stat_single(op, info->pathname, s);
            else
                stat_listing(op, info->pathname, s);
        },
        [&](tarvex_result_t r) { tarvex_gridftp_server_finished_stat(op, r, nullptr, 0); });
}

} // namespace tarvex_posix
