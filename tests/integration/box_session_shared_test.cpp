/*
 * Two sessions of one Box user against the emulator: with the shared
 * session cache, B's lookups, listings and stores see what A changes;
 * with the private one (the default) B keeps the view its cache had.  A
 * session that has fallen behind the journal's ring drops its whole
 * cache; sessions on two hosts (homes of their own) meet through a Redis
 * server of the test's; and with a time to live, cached listings age on
 * an injected clock.
 */
#include <filesystem>

#include "box_pacing_support.h"
#include "box_scratch.h"
#include "box_session_support.h"
#include "box_wait.h"
#include "config.h"
#include "path_resolve.h"
#include "session_journal.h"

namespace box_session_test {
namespace {

using tarvex_test::driver;
using tarvex_test::event_kind;

/* What a session's lookup of `path` finds: "folder", "file" or "missing". */
std::string see(tarvex_box_session_t *box, const std::string &path)
{
    tarvex_box_path_info_t *entry = nullptr;
    tarvex_result_t result = tarvex_box_path_resolve(box, path.c_str(), &entry, nullptr);
    if (result != TARVEX_SUCCESS) {
        tarvex_error_discard(result);
        return "missing";
    }
    return entry->type == TARVEX_BOX_FOLDER ? "folder" : "file";
}

class two_sessions : public session_test {
protected:
    void TearDown() override
    {
        if (b_ != nullptr)
            other_.destroy(&box_table, b_);
        session_test::TearDown();
        tarvex_box_cache_clock_us = tarvex_time_monotonic_usec;
        std::string ignored;
        tarvex_box_pacing_store_configure(nullptr, &ignored);
    }
    /* Starts B (other_) under `policy`, as start() does A. */
    void start_other(const std::string &policy)
    {
        other_.set_config("config", policy);
        other_.set_answer_timeout(answer_timeout);
        other_.set_config("creds", R"({"access_token":"test-token","token_expiry":)"
                                   R"("2099-01-01T00:00:00.000000+00:00","sub":"4242",)"
                                   R"("max_upload":53687091200})");
        b_ = static_cast<tarvex_box_session_t *>(other_.start(&box_table, "alice"));
        ASSERT_NE(b_, nullptr) << other_.events(event_kind::session_start)[0].reply;
    }
    /* Starts A (this fixture's driver) and B under `policy`. */
    void start_both(const std::string &policy)
    {
        driver_.set_config("config", policy);
        ASSERT_NE(start(), nullptr);
        start_other(policy);
        take_requests();
    }
    std::string store(driver &d, tarvex_box_session_t *box, const std::string &path,
                      const std::string &data)
    {
        d.set_receive_data(data);
        return take_reply(d.recv(&box_table, box, path, (tarvex_off_t)data.size(), true));
    }

    driver other_;
    tarvex_box_session_t *b_ = nullptr;
};

class both_modes : public two_sessions, public ::testing::WithParamInterface<std::string> {
};

/* A makes a folder, stores a file, renames and deletes; after each step,
 * B's lookup, listing or store. */
TEST_P(both_modes, AnotherSessionsChanges)
{
    const bool shared = GetParam() == "shared";
    seed(R"([{"path":"/d/f0.txt","content":"zero"},{"path":"/e/x.txt","content":"x"}])");
    start_both(R"({"session_cache":")" + GetParam() + "\"}");
    ASSERT_EQ(see(b_, "/d/f0.txt"), "file");
    ASSERT_EQ(see(b_, "/e/x.txt"), "file");
    listings();
    /* A MKD of a folder that is there asks Box nothing and tells nobody. */
    ASSERT_EQ(command(TARVEX_GFS_CMD_MKD, "/d"), "");
    EXPECT_EQ(see(b_, "/d/f0.txt"), "file");
    EXPECT_EQ(listings(), strings{});

    ASSERT_EQ(command(TARVEX_GFS_CMD_MKD, "/n"), "");
    take_requests();
    EXPECT_EQ(see(b_, "/n"), shared ? "folder" : "missing");
    /* Only the root was changed: /d stays listed in B. */
    EXPECT_EQ(see(b_, "/d/f0.txt"), "file");
    EXPECT_EQ(listings(), shared ? strings{"0"} : strings{});
    EXPECT_EQ(take_reply(other_.stat(&box_table, b_, "/n", false)).empty(), shared);
    EXPECT_EQ(store(other_, b_, "/n/g.txt", "g").empty(), shared);

    ASSERT_EQ(store(driver_, session_, "/d/a.txt", "from A"), "");
    EXPECT_EQ(see(b_, "/d/a.txt"), shared ? "file" : "missing");
    /* Replacing it: B must delete A's file first, which only the shared
     * view knows of (else Box refuses the name). */
    EXPECT_EQ(store(other_, b_, "/d/a.txt", "from B").empty(), shared);
    EXPECT_EQ(emulator().content("/d/a.txt"), shared ? "from B" : "from A");

    ASSERT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/f1.txt", "/d/f0.txt"), "");
    EXPECT_EQ(see(b_, "/d/f0.txt"), shared ? "missing" : "file");
    EXPECT_EQ(see(b_, "/d/f1.txt"), shared ? "file" : "missing");

    ASSERT_EQ(command(TARVEX_GFS_CMD_SITE_RDEL, "/e"), "");
    EXPECT_EQ(see(b_, "/e/x.txt"), shared ? "missing" : "file");
    EXPECT_EQ(see(b_, "/e"), shared ? "missing" : "folder");
}

INSTANTIATE_TEST_SUITE_P(modes, both_modes, ::testing::Values("shared", "private"));

/* The ring holds 256 changes: one more than B can read, and B drops its
 * whole cache.  The changes are of a path B has nothing cached for. */
TEST_F(two_sessions, FallingBehindTheRingDropsTheWholeCache)
{
    auto ids = seed(R"([{"path":"/d/f0.txt","content":"zero"}])");
    start_both(R"({"session_cache":"shared"})");
    const struct { int changes; strings listed; } rows[] = {
        {256, {}},
        {257, {"0", ids["/d"]}},
    };
    for (const auto &r : rows) {
        ASSERT_EQ(see(b_, "/d/f0.txt"), "file");
        listings();
        for (int i = 0; i < r.changes; i++)
            tarvex_box_journal_publish_path(session_, "/q/r/s");
        EXPECT_EQ(see(b_, "/d/f0.txt"), "file") << r.changes;
        EXPECT_EQ(listings(), r.listed) << r.changes;
    }
}

/* Two hosts: each session has a home (and so a journal file) of its own,
 * and only the store joins them.  B looks at the store at most every
 * 250 ms, so it sees A's folder within that. */
TEST_F(two_sessions, SessionsOnTwoHostsMeetThroughTheStore)
{
    if (!tarvex_test::have_program("redis-server"))
        GTEST_SKIP() << "redis-server is not installed (scripts/install-deps brings it)";
    tarvex_test::redis_server redis;
    seed(R"([{"path":"/d/f0.txt","content":"zero"}])");
    const std::string policy =
        R"({"session_cache":"shared","pacing_store":")" + redis.url() + "\"}";

    tarvex_test::box_scratch host_a, host_b;
    const char *saved = tarvex_i_box_retry_path;
    tarvex_i_box_retry_path = host_a.retry_path().c_str();
    driver_.set_config("config", policy);
    ASSERT_NE(start(), nullptr);
    tarvex_i_box_retry_path = host_b.retry_path().c_str();
    start_other(policy);
    tarvex_i_box_retry_path = saved;
    ASSERT_NE(b_, nullptr);
    ASSERT_EQ(see(b_, "/d/f0.txt"), "file");

    ASSERT_EQ(command(TARVEX_GFS_CMD_MKD, "/n"), "");
    ASSERT_EQ(command(TARVEX_GFS_CMD_DELE, "/d/f0.txt"), "");
    EXPECT_TRUE(tarvex_test::eventually([&] { return see(b_, "/n") == "folder"; },
                                        std::chrono::seconds(30)));
    EXPECT_EQ(see(b_, "/d/f0.txt"), "missing");
    tarvex_test::redis_reply gen = redis.command({"HGET", "tarvex:box:journal:4242", "gen"});
    ASSERT_NE(gen, nullptr);
    EXPECT_EQ(std::string(gen->str, gen->len), "2");
}

/* With a time to live, a listing older than it is made again: here the
 * emulator gains a file behind the session's back. */
TEST_F(two_sessions, ListingsOlderThanTheTimeToLiveAreMadeAgain)
{
    static int64_t now_us = 0;
    now_us = 1000000;
    tarvex_box_cache_clock_us = [] { return now_us; };
    auto ids = seed(R"([{"path":"/d/f0.txt","content":"zero"}])");
    driver_.set_config("config", R"({"cache_ttl_seconds": 60})");
    ASSERT_NE(start(), nullptr);
    ASSERT_EQ(see(session_, "/d/f0.txt"), "file");
    seed(R"([{"path":"/d/new.txt","content":"new"}])");
    take_requests();

    const struct { int64_t after_s; const char *found; strings listed; } rows[] = {
        {60, "missing", {}},
        {61, "file", {"0", ids["/d"]}},
    };
    for (const auto &r : rows) {
        now_us = 1000000 + r.after_s * 1000000;
        EXPECT_EQ(see(session_, "/d/new.txt"), r.found) << r.after_s;
        EXPECT_EQ(listings(), r.listed) << r.after_s;
    }
}

} // namespace
} // namespace box_session_test
