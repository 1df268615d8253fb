#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "posix.h"

namespace tarvex_posix {

std::string relative(const char *path)
{
    if (path == nullptr)
        return ".";
    while (*path == '/')
        ++path;
    return *path == '\0' ? "." : path;
}

int open_beneath(const Session &s, const std::string &rel, int flags, mode_t mode)
{
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) ? mode : 0;
    // Links are followed only while they stay inside the root; magic links
    // (/proc/self/fd/...) never.
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        long fd = syscall(SYS_openat2, s.root_fd, rel.c_str(), &how, sizeof how);
        if (fd >= 0 || errno != EAGAIN)
            return static_cast<int>(fd);
        // EAGAIN: a rename raced with the lookup; the kernel asks to retry.
    }
}

int open_parent(const Session &s, const char *path, std::string &name)
{
    std::string rel = relative(path);
    if (rel == ".") {
        errno = EPERM;
        return -1;
    }
    while (!rel.empty() && rel.back() == '/')
        rel.pop_back();
    size_t slash = rel.rfind('/');
    std::string parent = slash == std::string::npos ? "." : rel.substr(0, slash);
    name = slash == std::string::npos ? rel : rel.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        errno = EPERM;
        return -1;
    }
    return open_beneath(s, parent, O_PATH | O_DIRECTORY);
}

} // namespace tarvex_posix
