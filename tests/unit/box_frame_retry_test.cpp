/*
 * Request pacing: processes sharing one pacing file keep their requests at
 * least `delay` apart; files that are not ours are not used.
 */
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "box_scratch.h"

namespace {

using tarvex_test::box_scratch;

/* Four processes, 200 paced calls each, one file: sorted together, no two
 * stamps are closer than the spacing.  A child reads the stamp after the
 * lock is released, so it may read a later one of another child instead of
 * its own: the stamps collected are some of the stamps made, which only
 * ever lie further apart.  That all 800 calls were spaced shows in the
 * time they took together. */
TEST(BoxFrameRetry, ProcessesSharingAFileKeepTheirSpacing)
{
    box_scratch scratch;
    constexpr int processes = 4, calls = 200, per_second = 250;
    size_t bytes = sizeof(int64_t) * processes * calls;
    auto *stamps = static_cast<int64_t *>(
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(stamps, MAP_FAILED);
    std::vector<pid_t> children;
    auto started = std::chrono::steady_clock::now();
    for (int p = 0; p < processes; p++) {
        pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) {
            tarvex_box_retry_t retry{};
            tarvex_i_box_retry_state_create("shared", per_second, &retry);
            if (retry.fd == -1)
                _exit(2);
            for (int i = 0; i < calls; i++) {
                tarvex_i_box_retry_delay(0, &retry);
                stamps[p * calls + i] =
                    retry.shared->last.tv_sec * 1000000000LL + retry.shared->last.tv_nsec;
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_GE(took, std::chrono::microseconds((processes * calls - 1) * (1000000 / per_second)));
    std::vector<int64_t> all(stamps, stamps + processes * calls);
    munmap(stamps, bytes);
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    EXPECT_GT(all.front(), 0);
    for (size_t i = 1; i < all.size(); i++)
        ASSERT_GE(all[i] - all[i - 1], 1000000000LL / per_second) << i;
}

/* A pacing file of ours is used; once it belongs to someone else it is not,
 * and pacing falls back to a private record. */
TEST(BoxFrameRetry, SomeoneElsesFileIsNotUsed)
{
    struct passwd *nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr)
        GTEST_SKIP() << "needs root and a user nobody to give the file away";
    box_scratch scratch;
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("theirs", 16, &retry);
    EXPECT_NE(retry.fd, -1);
    tarvex_i_box_retry_state_destroy(&retry);
    std::string path = scratch.retry_path() + "/theirs";
    ASSERT_EQ(chown(path.c_str(), nobody->pw_uid, nobody->pw_gid), 0);

    tarvex_i_box_retry_state_create("theirs", 16, &retry);
    EXPECT_TRUE(retry.is);
    EXPECT_EQ(retry.fd, -1);
    EXPECT_NE(retry.shared, nullptr);
    tarvex_i_box_retry_state_destroy(&retry);
}

} // namespace
