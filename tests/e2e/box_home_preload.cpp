// Preloaded into the e2e server only: the account entry of the server's own
// user names $TARVEX_TEST_HOME as its home directory.
//
// The Box plug-in keeps its per-user pacing and upload state files under
// the home directory of the password entry (not $HOME), and the e2e server
// runs as the tester's own account; without this every run would share
// those files with the tester's real ones and with other runs.
#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

using getpwuid_r_fn = int (*)(uid_t, struct passwd *, char *, size_t, struct passwd **);

getpwuid_r_fn next_getpwuid_r()
{
    static const auto next = reinterpret_cast<getpwuid_r_fn>(dlsym(RTLD_NEXT, "getpwuid_r"));
    return next;
}

} // namespace

extern "C" int getpwuid_r(uid_t uid, struct passwd *entry, char *buffer, size_t size,
                          struct passwd **found)
{
    getpwuid_r_fn next = next_getpwuid_r();
    if (next == nullptr) {
        *found = nullptr;
        return ENOSYS;
    }
    int rc = next(uid, entry, buffer, size, found);
    const char *home = getenv("TARVEX_TEST_HOME");
    // The environment string lives as long as the process: the entry may
    // point into it for as long as the caller keeps the entry.
    if (rc == 0 && *found != nullptr && home != nullptr && home[0] == '/' &&
        (uid == getuid() || uid == geteuid()))
        entry->pw_dir = const_cast<char *>(home);
    return rc;
}
