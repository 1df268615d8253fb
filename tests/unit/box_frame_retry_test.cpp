/*
 * Request pacing: processes sharing one pacing file keep their requests at
 * least `delay` apart; files that are not ours are not used.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tarvex_box_common.h"

namespace {

namespace fs = std::filesystem;

/* Pacing files go to a private directory instead of the user's home. */
class BoxFrameRetry : public ::testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/box-frame-retry-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        template_ = dir_ + "/box-r";
        saved_path_ = tarvex_i_box_retry_path;
        tarvex_i_box_retry_path = template_.c_str();
    }
    void TearDown() override
    {
        tarvex_i_box_retry_path = saved_path_;
        fs::remove_all(dir_);
    }
    std::string dir_, template_;
    const char *saved_path_ = nullptr;
};

TEST_F(BoxFrameRetry, CreatesTheSharedRecordFile)
{
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("123", 16, &retry);
    EXPECT_TRUE(retry.is);
    EXPECT_EQ(retry.delay, 62500u);
    ASSERT_NE(retry.fd, -1);
    ASSERT_NE(retry.shared, nullptr);
    struct stat st;
    ASSERT_EQ(stat((template_ + "/123").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 24);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(template_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    tarvex_i_box_retry_delay(0, &retry);
    EXPECT_NE(retry.shared->last.tv_sec, 0);
    EXPECT_EQ(retry.shared->last.tv_nsec % 1000, 0);

    tarvex_i_box_retry_state_destroy(&retry);
    EXPECT_EQ(retry.fd, -1);
    EXPECT_EQ(retry.shared, nullptr);
}

/* Four processes, 200 paced calls each, one file: sorted together, no two
 * stamps are closer than the spacing. */
TEST_F(BoxFrameRetry, ProcessesSharingAFileKeepTheirSpacing)
{
    constexpr int processes = 4, calls = 200, per_second = 250;
    constexpr int64_t delay_ns = 1000000000LL / per_second;
    size_t bytes = sizeof(int64_t) * processes * calls;
    auto *stamps = static_cast<int64_t *>(
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(stamps, MAP_FAILED);

    std::vector<pid_t> children;
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
            tarvex_i_box_retry_state_destroy(&retry);
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    std::vector<int64_t> all(stamps, stamps + processes * calls);
    munmap(stamps, bytes);
    std::sort(all.begin(), all.end());
    int64_t closest = INT64_MAX;
    for (size_t i = 1; i < all.size(); i++)
        closest = std::min(closest, all[i] - all[i - 1]);
    EXPECT_GE(closest, delay_ns);
    EXPECT_GT(all.front(), 0);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/* The DEBUG lines tell what the delay decided. */
class BoxFrameRetryTrace : public BoxFrameRetry {
protected:
    void SetUp() override
    {
        BoxFrameRetry::SetUp();
        saved_ = tarvex_i_TARVEX_BOX_debug_handle;
        log_ = dir_ + "/debug.log";
        tarvex_debug_handle_t &h = tarvex_i_TARVEX_BOX_debug_handle;
        h = tarvex_debug_handle_t{};
        h.levels = TARVEX_BOX_DEBUG;
        h.file = fopen(log_.c_str(), "w");
        ASSERT_NE(h.file, nullptr);
    }
    void TearDown() override
    {
        fclose(tarvex_i_TARVEX_BOX_debug_handle.file);
        tarvex_i_TARVEX_BOX_debug_handle = saved_;
        BoxFrameRetry::TearDown();
    }
    std::string lines()
    {
        fflush(tarvex_i_TARVEX_BOX_debug_handle.file);
        std::string text = read_file(log_);
        std::string out;
        /* Keep only the text after the prefix "box: DEBUG: pid: function: ". */
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            size_t at = line.find("tarvex_i_box_retry_delay: ");
            out += (at == std::string::npos ? line : line.substr(at + 26)) + "\n";
        }
        return out;
    }
    tarvex_debug_handle_t saved_{};
    std::string log_;
};

TEST_F(BoxFrameRetryTrace, WaitsOnlyWithinTheSameSecond)
{
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("trace", 16, &retry);
    ASSERT_NE(retry.fd, -1);

    /* A stamp two seconds old (or two seconds ahead): no wait. */
    for (int64_t shift : {-2, 2}) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        retry.shared->last.tv_sec = now.tv_sec + shift;
        retry.shared->last.tv_nsec = 0;
        tarvex_i_box_retry_delay(0, &retry);
    }
    EXPECT_EQ(lines(), "");

    /* Right after a stamp: the rest of the spacing. */
    tarvex_i_box_retry_delay(0, &retry);
    std::string text = lines();
    ASSERT_EQ(text.rfind("sleep=", 0), 0u) << text;
    unsigned slept = (unsigned)std::stoul(text.substr(6));
    EXPECT_GT(slept, 0u);
    EXPECT_LE(slept, 62500u);
    tarvex_i_box_retry_state_destroy(&retry);
}

TEST_F(BoxFrameRetryTrace, RetryAfterIsCappedByTheMaximumDelay)
{
    int saved_max = tarvex_i_box_max_delay;
    tarvex_i_box_max_delay = 1;
    tarvex_i_box_retry_delay(60, nullptr);
    tarvex_i_box_max_delay = saved_max;
    EXPECT_EQ(lines(), "retry_after=60 sleep=1\n");
}

TEST_F(BoxFrameRetryTrace, WithoutAFileEveryCallWaitsTheSpacing)
{
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_path = "/proc/no-such-place/box-r";
    tarvex_i_box_retry_state_create("nofile", 50, &retry);
    EXPECT_TRUE(retry.is);
    EXPECT_EQ(retry.fd, -1);
    ASSERT_NE(retry.shared, nullptr);
    tarvex_i_box_retry_delay(0, &retry);
    EXPECT_EQ(lines(), "sleep=20000 lockfailed\n");
    tarvex_i_box_retry_state_destroy(&retry);
}

TEST_F(BoxFrameRetry, SomeoneElsesFileIsNotUsed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the file away";
    struct passwd *nobody = getpwnam("nobody");
    if (nobody == nullptr)
        GTEST_SKIP() << "no user nobody";
    ASSERT_EQ(mkdir(template_.c_str(), 0700), 0);
    std::string path = template_ + "/theirs";
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(ftruncate(fd, 24), 0);
    close(fd);
    ASSERT_EQ(chown(path.c_str(), nobody->pw_uid, nobody->pw_gid), 0);

    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("theirs", 16, &retry);
    EXPECT_TRUE(retry.is);
    EXPECT_EQ(retry.fd, -1);
    ASSERT_NE(retry.shared, nullptr);
    EXPECT_EQ(retry.shared->last.tv_sec, 0);
    tarvex_i_box_retry_state_destroy(&retry);
}

} // namespace
