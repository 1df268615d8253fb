#include "evaluate_path.h"
#include "state_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int tarvex_l_box_open_attempts = 10;

} // namespace

tarvex_box_cstr_ptr tarvex_box_state_file_path(const char *dir_template, const char *name)
{
    tarvex_box_cstr_ptr pattern(tarvex_common_create_string("%s/%s", dir_template, name));
    char *path = nullptr;
    if (pattern != nullptr)
        tarvex_error_discard(tarvex_box_evaluate_path(pattern.get(), &path));
    return tarvex_box_cstr_ptr(path);
}

void tarvex_box_state_file_make_parent(char *path)
{
    char *slash = strrchr(path, '/');
    TARVEX_BOX_CHECK(slash != NULL);
    *slash = '\0';
    DIR *dir = opendir(path);
    if (dir != nullptr)
        closedir(dir);
    else if (errno == ENOENT)
        mkdir(path, 0700);
    *slash = '/';
}

int tarvex_box_state_file_open(const char *path)
{
    int fd = -1;
    for (int i = 0; i < tarvex_l_box_open_attempts && fd == -1; i++)
        fd = open(path, O_RDWR | O_CREAT, 0600);
    return fd;
}

bool tarvex_box_state_file_usable(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 && st.st_uid == geteuid() && S_ISREG(st.st_mode);
}

int tarvex_box_state_file_open_named(const char *dir_template, const char *name)
{
    int fd = -1;
    if (tarvex_box_cstr_ptr path = tarvex_box_state_file_path(dir_template, name)) {
        tarvex_box_state_file_make_parent(path.get());
        fd = tarvex_box_state_file_open(path.get());
    }
    if (fd != -1 && !tarvex_box_state_file_usable(fd)) {
        /* Someone else's file must not steer our requests. */
        close(fd);
        fd = -1;
    }
    return fd;
}

int tarvex_box_state_file_lock(int fd, short type, int command)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    lock.l_pid = 0;
    int rc;
    do
        rc = fcntl(fd, command, &lock);
    while (rc == -1 && errno == EINTR);
    return rc;
}

tarvex_result_t tarvex_box_state_file_lock_error()
{
    return tarvex_i_gfs_error_system(nullptr, errno, "System error%s%s", " in ", "fnctl");
}

void *tarvex_box_state_file_anonymous(size_t size)
{
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}
