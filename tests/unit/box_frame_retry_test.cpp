/*
 * Request pacing: processes sharing one pacing file keep their requests at
 * least `delay` apart, a call waits for the file's lock and keeps its
 * distance from the stamp made while it waited, and without a file pacing
 * still has a record.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "box_scratch.h"
#include "box_wait.h"
#include "retry.h"

namespace {

using tarvex_test::box_scratch;
using tarvex_test::child;
using shared_stamps = tarvex_test::shared_array<int64_t>;

/* The last stamp of a pacing record, in nanoseconds. */
int64_t last_stamp(const tarvex_box_retry_t &retry)
{
    return retry.shared->last.tv_sec * 1000000000LL + retry.shared->last.tv_nsec;
}

/* Four processes, 200 paced calls each, on one pacing file.  Each process
 * makes every call while it holds the pacing file's lock and reads the
 * stamp before letting go: no other call can run in between, so what it
 * reads is exactly the stamp of its own call.  The call itself locks a file
 * of its process alone (the handle's descriptor), so the calls are ordered
 * by their callers' lock; that a call takes the pacing file's lock by
 * itself is the next test's.  Sorted together, no two of the 800 stamps
 * are closer than the spacing. */
TEST(BoxFrameRetry, ProcessesSharingAFileKeepTheirSpacing)
{
    box_scratch scratch;
    constexpr size_t processes = 4, calls = 200;
    constexpr int per_second = 250;
    shared_stamps stamps(processes * calls);
    std::vector<std::unique_ptr<child>> children;
    children.reserve(processes);
    for (size_t p = 0; p < processes; p++) {
        children.push_back(std::make_unique<child>([&, p] {
            tarvex_box_retry_t file{};
            tarvex_i_box_retry_state_create("shared", per_second, &file);
            if (file.fd == -1)
                return 2;
            tarvex_box_retry_t call = file;
            std::string own = scratch.retry_path() + "/own-" + std::to_string(p);
            call.fd = open(own.c_str(), O_RDWR | O_CREAT, 0600);
            if (call.fd == -1)
                return 3;
            for (size_t i = 0; i < calls; i++) {
                if (tarvex_i_box_retry_state_lock(&file, true) != TARVEX_SUCCESS)
                    return 4;
                tarvex_i_box_retry_delay(0, &call);
                stamps[p * calls + i] = last_stamp(file);
                if (tarvex_i_box_retry_state_unlock(&file) != TARVEX_SUCCESS)
                    return 5;
            }
            return 0;
        }));
    }
    for (auto &c : children)
        EXPECT_EQ(c->status(), 0);

    std::vector<int64_t> all(&stamps[0], &stamps[0] + stamps.size());
    std::sort(all.begin(), all.end());
    EXPECT_GT(all.front(), 0);
    for (size_t i = 1; i < all.size(); i++)
        ASSERT_GE(all[i] - all[i - 1], 1000000000LL / per_second) << i;
}

/* While another process holds the pacing file's lock, a call waits for it;
 * the stamp that process makes meanwhile is the one the call keeps its
 * distance from. */
TEST(BoxFrameRetry, ACallWaitsForTheLockAndKeepsItsDistanceFromTheStampMadeMeanwhile)
{
    box_scratch scratch;
    constexpr int per_second = 4;
    tarvex_box_retry_t held{};
    tarvex_i_box_retry_state_create("held", per_second, &held);
    ASSERT_NE(held.fd, -1);
    ASSERT_EQ(tarvex_i_box_retry_state_lock(&held, true), TARVEX_SUCCESS);
    shared_stamps stamp(1);
    child caller([&] {
        tarvex_box_retry_t retry{};
        tarvex_i_box_retry_state_create("held", per_second, &retry);
        if (retry.fd == -1)
            return 2;
        tarvex_i_box_retry_delay(0, &retry);
        /* Nobody else makes a call: the stamp is this one's. */
        stamp[0] = last_stamp(retry);
        return 0;
    });
    ASSERT_TRUE(tarvex_test::eventually(
        [&] { return tarvex_test::waiting_for_lock(caller.pid()); }));

    /* At the microsecond grain of the stamps the call makes itself. */
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    held.shared->last.tv_sec = now.tv_sec;
    held.shared->last.tv_nsec = now.tv_nsec - now.tv_nsec % 1000;
    const int64_t made_meanwhile = last_stamp(held);
    ASSERT_EQ(tarvex_i_box_retry_state_unlock(&held), TARVEX_SUCCESS);
    ASSERT_EQ(caller.status(), 0);
    EXPECT_GE(stamp[0] - made_meanwhile, 1000000000LL / per_second);
    tarvex_i_box_retry_state_destroy(&held);
}

/* Opening a pacing record, first or not, leaves its lock free: a process
 * that opened one and makes no call holds no other process's call back. */
TEST(BoxFrameRetry, OpeningARecordHoldsNobodyBack)
{
    box_scratch scratch;
    auto call_elsewhere = [] {
        child caller([] {
            tarvex_box_retry_t retry{};
            tarvex_i_box_retry_state_create("idle", 16, &retry);
            return retry.fd != -1 && tarvex_i_box_retry_state_lock(&retry, true) == TARVEX_SUCCESS
                       ? 0
                       : 1;
        });
        return caller.status();
    };
    tarvex_box_retry_t first{}, second{};
    tarvex_i_box_retry_state_create("idle", 16, &first); /* makes the file */
    ASSERT_NE(first.fd, -1);
    EXPECT_EQ(call_elsewhere(), 0);
    tarvex_i_box_retry_state_create("idle", 16, &second); /* finds it made */
    EXPECT_EQ(call_elsewhere(), 0);
    tarvex_i_box_retry_state_destroy(&second);
    tarvex_i_box_retry_state_destroy(&first);
}

/* A file that is not a record (cut short, or grown by something else) is
 * brought to the record's size with its stamp cleared: a stamp of garbage
 * could hold every request back for years. */
TEST(BoxFrameRetry, AFileOfAnotherSizeIsMadeAFreshRecord)
{
    box_scratch scratch;
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("odd", 16, &retry);
    tarvex_i_box_retry_state_destroy(&retry);
    std::ofstream(scratch.retry_path() + "/odd") << std::string(40, '\x7f');

    tarvex_i_box_retry_state_create("odd", 16, &retry);
    ASSERT_NE(retry.fd, -1);
    EXPECT_TRUE(retry.shared->last.tv_sec == 0 && retry.shared->last.tv_nsec == 0);
    tarvex_i_box_retry_state_destroy(&retry);
}

/* Without a pacing file to use (its folder cannot be made), pacing falls
 * back to a private record.  That a state file which is no regular file is
 * refused is pinned by BoxUploadLock.FallsBackToPrivateMemory. */
TEST(BoxFrameRetry, WithoutAFilePacingFallsBackToAPrivateRecord)
{
    box_scratch scratch;
    const std::string missing = scratch.retry_path() + "/missing/box-r";
    tarvex_i_box_retry_path = missing.c_str();
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("private", 16, &retry);
    EXPECT_TRUE(retry.is);
    EXPECT_EQ(retry.fd, -1);
    EXPECT_NE(retry.shared, nullptr);
    tarvex_i_box_retry_state_destroy(&retry);
}

} // namespace
