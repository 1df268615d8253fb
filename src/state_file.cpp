#include "evaluate_path.h"
#include "state_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <stdlib.h>
#include <unistd.h>

#include <utility>

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

void tarvex_box_state_file_make_dir(const char *path)
{
    DIR *dir = opendir(path);
    if (dir != nullptr)
        closedir(dir);
    else if (errno == ENOENT)
        (void)mkdir(path, 0700);
}

void tarvex_box_state_file_make_parent(char *path)
{
    char *slash = strrchr(path, '/');
    TARVEX_BOX_CHECK(slash != NULL);
    *slash = '\0';
    tarvex_box_state_file_make_dir(path);
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

tarvex_box_fd tarvex_box_state_file_open_named(const char *dir_template, const char *name)
{
    tarvex_box_fd fd;
    if (tarvex_box_cstr_ptr path = tarvex_box_state_file_path(dir_template, name)) {
        tarvex_box_state_file_make_parent(path.get());
        fd.reset(tarvex_box_state_file_open(path.get()));
    }
    /* Someone else's file must not steer our requests. */
    if (fd && !tarvex_box_state_file_usable(fd.get()))
        fd.reset();
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

tarvex_result_t tarvex_box_state_file_lock_result(int fd, short type, int command)
{
    if (tarvex_box_state_file_lock(fd, type, command) != 0)
        return tarvex_box_state_file_lock_error();
    return TARVEX_SUCCESS;
}

void *tarvex_box_state_file_anonymous(size_t size)
{
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

void *tarvex_box_state_file_private(size_t size)
{
    return calloc(1, size);
}

void tarvex_box_state_file_release(int *fd, void *record, size_t mapped_length)
{
    if (*fd == -1) {
        free(record);
        return;
    }
    tarvex_box_fd file(std::exchange(*fd, -1));
    tarvex_box_mapping mapping(record, mapped_length);
}
