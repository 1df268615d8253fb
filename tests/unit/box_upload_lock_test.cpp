/*
 * The upload lock: the state file it makes, the private memory it falls
 * back to, and processes that share the file and its lock.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "box_scratch.h"
#include "box_wait.h"
#include "config.h"
#include "upload_state.h"

namespace {

using namespace std::chrono_literals;
using tarvex_test::child;
using tarvex_test::eventually;
using tarvex_test::in_syscall;
using tarvex_test::waiting_for_lock;
using state_t = tarvex_box_upload_state_t;
constexpr size_t state_size = 4440;

/* The upload path template pointed at "box-u" in a scratch directory. */
struct upload_scratch {
    tarvex_test::box_scratch box;
    const char *saved = tarvex_i_box_upload_path;
    std::string dir = std::filesystem::path(box.retry_path()).parent_path().string() + "/box-u";

    upload_scratch() { tarvex_i_box_upload_path = dir.c_str(); }
    ~upload_scratch() { tarvex_i_box_upload_path = saved; }
    std::string file(const char *name) const { return dir + "/" + name; }
};

std::string contents(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/* The lock's refusal: the "fnctl" system error carrying `expected` (or, for
 * 0, the errno of a lock held elsewhere).  Consumes the result. */
bool is_fnctl_error(tarvex_result_t result, int expected)
{
    if (result == TARVEX_SUCCESS)
        return false;
    int got = tarvex_error_errno_get_errno(tarvex_error_peek(result));
    char *reply = tarvex_gfs_error_to_ftp_reply(result, 0);
    bool ok = reply != nullptr &&
              std::string(reply).rfind("451 System error in fnctl: ", 0) == 0 &&
              (expected != 0 ? got == expected : got == EAGAIN || got == EACCES);
    free(reply);
    tarvex_object_free(tarvex_error_get(result));
    return ok;
}

/* Whether another process can take the lock of `name` at once. */
bool free_for_others(const char *name)
{
    child other([name] {
        state_t state{};
        tarvex_i_box_upload_state_create(name, &state);
        return tarvex_i_box_upload_state_lock(&state, false) == TARVEX_SUCCESS ? 0 : 1;
    });
    return other.status() == 0;
}

/* A new file is ours alone, zero-filled, in a directory only we can enter;
 * what is written through the mapping is in the file and stays for the
 * next handle.  Creation leaves no lock behind. */
TEST(BoxUploadLock, MakesAndKeepsTheStateFile)
{
    upload_scratch scratch;
    state_t state{};
    tarvex_i_box_upload_state_create("one", &state);
    EXPECT_TRUE(free_for_others("one"));
    EXPECT_TRUE(state.is);
    ASSERT_NE(state.fd, -1);
    ASSERT_NE(static_cast<void *>(state.shared), MAP_FAILED);
    struct stat dir_st, file_st;
    ASSERT_EQ(stat(scratch.dir.c_str(), &dir_st), 0);
    ASSERT_EQ(stat(scratch.file("one").c_str(), &file_st), 0);
    EXPECT_EQ(dir_st.st_mode & 07777, 0700u);
    EXPECT_EQ(file_st.st_mode & 07777, 0600u);
    EXPECT_EQ(contents(scratch.file("one")), std::string(state_size, '\0'));

    strcpy(state.shared->name, "/kept.bin");
    tarvex_i_box_upload_state_destroy(&state);
    EXPECT_EQ(state.fd, -1);
    EXPECT_EQ(state.shared, nullptr);
    EXPECT_EQ(contents(scratch.file("one")).substr(340, 10), std::string("/kept.bin") + '\0');
    tarvex_i_box_upload_state_create("one", &state);
    EXPECT_STREQ(state.shared->name, "/kept.bin");
    EXPECT_TRUE(free_for_others("one"));
    tarvex_i_box_upload_state_destroy(&state);
}

/* No file to use: the handle still works, on private zeroed memory, and its
 * lock is refused since there is no file to lock.  (A folder that cannot be
 * made leaves no file either: BoxFrameRetry's fallback test.) */
TEST(BoxUploadLock, FallsBackToPrivateMemory)
{
    struct passwd *nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr)
        GTEST_SKIP() << "needs root and a user nobody to give a file away";
    struct fallback {
        const char *what;
        std::function<void(upload_scratch &)> prepare;
    } cases[] = {
        {"someone else's file",
         [&](upload_scratch &s) {
             state_t made{};
             tarvex_i_box_upload_state_create("x", &made);
             tarvex_i_box_upload_state_destroy(&made);
             ASSERT_EQ(chown(s.file("x").c_str(), nobody->pw_uid, nobody->pw_gid), 0);
         }},
        {"not a regular file",
         [](upload_scratch &s) {
             ASSERT_EQ(mkdir(s.dir.c_str(), 0700), 0);
             ASSERT_EQ(mkfifo(s.file("x").c_str(), 0600), 0);
         }},
    };
    for (const fallback &c : cases) {
        SCOPED_TRACE(c.what);
        upload_scratch scratch;
        c.prepare(scratch);
        state_t state{};
        tarvex_i_box_upload_state_create("x", &state);
        EXPECT_TRUE(state.is);
        EXPECT_EQ(state.fd, -1);
        ASSERT_NE(state.shared, nullptr);
        const char *bytes = reinterpret_cast<const char *>(state.shared);
        EXPECT_EQ(std::string(bytes, state_size), std::string(state_size, '\0'));
        EXPECT_TRUE(is_fnctl_error(tarvex_i_box_upload_state_lock(&state, false), EBADF));
        tarvex_i_box_upload_state_destroy(&state);
        EXPECT_EQ(state.shared, nullptr);
    }
}

/* Two processes start creating one file at the same moment; both map it,
 * and read-modify-write rounds made under the lock lose no update. */
TEST(BoxUploadLock, RacingProcessesShareOneFileAndItsLock)
{
    upload_scratch scratch;
    constexpr int rounds = 300;
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    auto racer = [&]() -> int {
        close(gate[1]);
        char c;
        if (read(gate[0], &c, 1) != 0) /* the gate opens at end of file */
            return 10;
        state_t state{};
        tarvex_i_box_upload_state_create("race", &state);
        struct stat st;
        if (state.fd == -1 || state.shared == MAP_FAILED || fstat(state.fd, &st) != 0 ||
            st.st_size != (off_t)state_size)
            return 11;
        volatile int32_t *count = &state.shared->num_parts;
        for (int i = 0; i < rounds; i++) {
            if (tarvex_i_box_upload_state_lock(&state, true) != TARVEX_SUCCESS)
                return 12;
            int32_t seen = *count;
            sched_yield();
            *count = seen + 1;
            if (tarvex_i_box_upload_state_unlock(&state) != TARVEX_SUCCESS)
                return 13;
        }
        tarvex_i_box_upload_state_destroy(&state);
        return 0;
    };
    child first(racer), second(racer);
    close(gate[0]);
    close(gate[1]);
    EXPECT_EQ(first.status(), 0);
    EXPECT_EQ(second.status(), 0);

    state_t state{};
    tarvex_i_box_upload_state_create("race", &state);
    EXPECT_EQ(state.shared->num_parts, 2 * rounds);
    tarvex_i_box_upload_state_destroy(&state);
}

/* While another process holds the lock of a file it has not sized yet, a
 * creator waits in one-second steps, then maps the sized file without the
 * lock.  Its non-blocking lock is refused; its blocking one returns once
 * the holder lets go, and each sees what the other wrote. */
TEST(BoxUploadLock, WaitsForTheHolderOfTheLock)
{
    upload_scratch scratch;
    ASSERT_EQ(mkdir(scratch.dir.c_str(), 0700), 0);
    int fd = open(scratch.file("held").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    int report[2];
    ASSERT_EQ(pipe(report), 0);

    child waiter([&]() -> int {
        auto start = std::chrono::steady_clock::now();
        state_t state{};
        tarvex_i_box_upload_state_create("held", &state);
        if (std::chrono::steady_clock::now() - start < 1s)
            return 20;
        if (state.fd == -1 || state.shared == MAP_FAILED ||
            strcmp(state.shared->name, "sized") != 0)
            return 21;
        if (!is_fnctl_error(tarvex_i_box_upload_state_lock(&state, false), 0))
            return 22;
        if (write(report[1], "n", 1) != 1 ||
            tarvex_i_box_upload_state_lock(&state, true) != TARVEX_SUCCESS)
            return 23;
        if (strcmp(state.shared->id, "released") != 0)
            return 24;
        strcpy(state.shared->id, "taken");
        return tarvex_i_box_upload_state_unlock(&state) == TARVEX_SUCCESS ? 0 : 25;
    });
    ASSERT_TRUE(eventually([&] {
        return in_syscall(waiter.pid(), SYS_clock_nanosleep) ||
               in_syscall(waiter.pid(), SYS_nanosleep);
    }));
    ASSERT_EQ(ftruncate(fd, state_size), 0);
    ASSERT_EQ(pwrite(fd, "sized", 6, offsetof(struct tarvex_box_upload_state_shared_s, name)), 6);

    struct pollfd reported = {report[0], POLLIN, 0};
    ASSERT_EQ(poll(&reported, 1, 60000), 1) << "no non-blocking attempt";
    ASSERT_TRUE(eventually([&] { return waiting_for_lock(waiter.pid()); }));
    ASSERT_EQ(pwrite(fd, "released", 9, 0), 9);
    lock.l_type = F_UNLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    EXPECT_EQ(waiter.status(), 0);
    char id[6] = {};
    EXPECT_EQ(pread(fd, id, sizeof id, 0), 6);
    EXPECT_STREQ(id, "taken");
    close(fd);
    close(report[0]);
    close(report[1]);
}

} // namespace
