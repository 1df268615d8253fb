/*
 * Pacing across hosts through a Redis server of the test's own: processes
 * standing for hosts, each with its own home (so no pacing file is
 * shared), keep one spacing between all their requests for a Box user
 * through the store; the slot rule the server runs, key by key; and the
 * store's URL with its password and database.
 */
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "box_pacing_support.h"
#include "box_scratch.h"
#include "config.h"
#include "retry.h"

namespace {

using namespace tarvex_test;
using std::chrono::seconds;

constexpr int per_second = 16;
constexpr int64_t spacing_us = 1000000 / per_second;

/* Calls per host: the spacing checked does not depend on their number. */
constexpr int calls_per_host = 40;

class BoxPacingCluster : public ::testing::Test {
protected:
    static void SetUpTestSuite() { tarvex_module_activate(&tarvex_i_common_module); }
    static void TearDownTestSuite() { tarvex_module_deactivate(&tarvex_i_common_module); }
    void SetUp() override
    {
        if (!have_program("redis-server"))
            GTEST_SKIP() << "redis-server is not installed (scripts/install-deps brings it)";
    }
    void TearDown() override
    {
        std::string ignored;
        tarvex_box_pacing_store_configure(nullptr, &ignored);
    }

    /* Runs `options.hosts` hosts to the end; their calls, and the wall time
     * they took in `took`. */
    static std::vector<pacing_call> run(const box_scratch &scratch,
                                        const pacing_hosts_options &options, double *took)
    {
        pacing_hosts hosts(scratch.dir(), options);
        EXPECT_TRUE(hosts.go());
        auto begun = std::chrono::steady_clock::now();
        /* Only against a hang: the floor, twice, and a minute. */
        auto floor = seconds(options.hosts * options.calls / per_second);
        EXPECT_TRUE(hosts.finished(2 * floor + seconds(60)));
        *took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
        return hosts.all();
    }
};

/* 4 hosts x N calls at 16/s for one user: every stamp a spacing from the
 * next, so the whole run takes at least the floor of 4N/16 s. */
TEST_F(BoxPacingCluster, FourHostsKeepOneSpacingThroughTheStore)
{
    redis_server redis;
    box_scratch scratch;
    const int calls = calls_per_host;
    double took = 0;
    std::vector<pacing_call> all = run(scratch, {4, calls, per_second, redis.url()}, &took);

    ASSERT_EQ(all.size(), size_t(4 * calls));
    std::vector<int64_t> stamps;
    for (const pacing_call &call : all) {
        ASSERT_EQ(call.source, tarvex_box_pacing_slot_t::store);
        stamps.push_back(call.stamp_us);
    }
    std::sort(stamps.begin(), stamps.end());
    for (size_t i = 1; i < stamps.size(); i++)
        ASSERT_GE(stamps[i] - stamps[i - 1], spacing_us) << "stamps " << i - 1 << " and " << i;
    const double floor = double(4 * calls) / per_second;
    printf("through the store: %d calls in %.2f s, floor %.2f s, ratio %.3f\n", 4 * calls,
           took, floor, took / floor);
}

/* The rule the server runs, seen from one process and through the keys,
 * and the longest wait that bounds it. */
TEST_F(BoxPacingCluster, TheSlotRuleAndItsKeys)
{
    redis_server redis;
    box_scratch scratch;
    int rate = per_second;
    const std::string policy = R"({"pacing_store": ")" + redis.url() + "\"}";
    ASSERT_EQ(tarvex_box_config_parse_json(policy.c_str(), &rate), TARVEX_SUCCESS);
    tarvex_box_retry_t retry{}, upload{};
    tarvex_i_box_retry_state_create("77", per_second, &retry);
    tarvex_i_box_retry_state_create("77u", 4, &upload);
    const std::string key = "tarvex:box:pacing:77";

    /* Back to back: the second slot is the spacing after the first, and
     * the key holds its stamp, in digits, for a minute and a little. */
    tarvex_box_pacing_slot_t first = tarvex_box_pace(&retry);
    tarvex_box_pacing_slot_t second = tarvex_box_pace(&retry);
    ASSERT_EQ(first.source, tarvex_box_pacing_slot_t::store);
    ASSERT_EQ(second.source, tarvex_box_pacing_slot_t::store);
    EXPECT_GE(second.stamp_us - first.stamp_us, spacing_us);
    EXPECT_LE(second.waited_us, spacing_us);
    redis_reply value = redis.command({"GET", key});
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(std::string(value->str, value->len), std::to_string(second.stamp_us));
    redis_reply ttl = redis.command({"PTTL", key});
    EXPECT_GT(ttl->integer, 0);
    EXPECT_LE(ttl->integer, 60000 + 2 * spacing_us / 1000 + 1);

    /* Each state has its key. */
    tarvex_box_pacing_slot_t upload_slot = tarvex_box_pace(&upload);
    EXPECT_EQ(upload_slot.source, tarvex_box_pacing_slot_t::store);
    EXPECT_EQ(upload_slot.waited_us, 0);
    value = redis.command({"GET", key + "u"});
    EXPECT_EQ(std::string(value->str, value->len), std::to_string(upload_slot.stamp_us));
    /* The script went once and is named by its digest since. */
    redis_reply stats = redis.command({"INFO", "commandstats"});
    const std::string calls(stats->str, stats->len);
    EXPECT_NE(calls.find("cmdstat_evalsha:calls=3,"), std::string::npos) << calls;
    EXPECT_EQ(calls.find("cmdstat_eval:"), std::string::npos) << calls;

    /* A stamp an hour ahead is what a server clock set back leaves: it
     * holds nobody back. */
    const std::string ahead = std::to_string(second.stamp_us + 3600LL * 1000000);
    redis.command({"SET", key, ahead});
    tarvex_box_pacing_slot_t after_clock = tarvex_box_pace(&retry);
    EXPECT_EQ(after_clock.source, tarvex_box_pacing_slot_t::store);
    EXPECT_EQ(after_clock.waited_us, 0);
    EXPECT_LT(after_clock.stamp_us, second.stamp_us + 3600LL * 1000000);

    tarvex_i_box_retry_state_destroy(&retry);
    tarvex_i_box_retry_state_destroy(&upload);

    /* No wait is longer than the longest wait, whatever the spacing: a
     * negative rate (stored as the policy gives it) makes a spacing of over
     * an hour. */
    const int saved = tarvex_i_box_max_delay;
    tarvex_i_box_max_delay = 1;
    tarvex_box_retry_t slow{};
    tarvex_i_box_retry_state_create("78", -1, &slow);
    EXPECT_EQ(tarvex_box_pace(&slow).waited_us, 0);
    auto begun = std::chrono::steady_clock::now();
    tarvex_box_pacing_slot_t held = tarvex_box_pace(&slow);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, seconds(1));
    tarvex_i_box_max_delay = saved;
    EXPECT_EQ(held.source, tarvex_box_pacing_slot_t::store);
    EXPECT_EQ(held.waited_us, 1000000);
    tarvex_i_box_retry_state_destroy(&slow);
}

/* A password written with %XX escapes, as a URL needs for "@", ":" and
 * "%", reaches the store decoded, the URL's database is used, and the
 * pacing states open at once share one connection.  Once that connection
 * can no longer be written to (as after a store that reset it), the next
 * write raises SIGPIPE, which must not end the process: the file paces
 * instead.  A wrong password, or a database the store does not have, is a
 * store that cannot be used, logged without the password: the file paces. */
TEST_F(BoxPacingCluster, PasswordDatabaseAndOneSharedConnection)
{
    redis_server redis("p@ss:w%rd");
    box_scratch scratch(TARVEX_BOX_WARN);
    int rate = per_second;
    auto configure = [&](const std::string &userinfo, int db) {
        const std::string policy = R"({"pacing_store": ")" + redis.url(userinfo, db) + "\"}";
        ASSERT_EQ(tarvex_box_config_parse_json(policy.c_str(), &rate), TARVEX_SUCCESS);
    };
    configure(":p%40ss%3Aw%25rd@", 3);
    tarvex_box_retry_t one{}, two{};
    tarvex_i_box_retry_state_create("80", rate, &one);
    tarvex_i_box_retry_state_create("81", rate, &two);
    tarvex_box_pacing_slot_t slot = tarvex_box_pace(&one);
    EXPECT_EQ(slot.source, tarvex_box_pacing_slot_t::store) << scratch.debug_text();
    EXPECT_EQ(tarvex_box_pace(&two).source, tarvex_box_pacing_slot_t::store);
    redis_reply value = redis.command({"GET", "tarvex:box:pacing:80"}, 3);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(std::string(value->str, value->len), std::to_string(slot.stamp_us));
    redis_reply clients = redis.command({"CLIENT", "LIST"});
    ASSERT_NE(clients, nullptr);
    std::string list(clients->str, clients->len);
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 2) << list; // ours and this one

    int ours = 0;
    for (int fd = 0; fd < 1024; fd++) {
        struct sockaddr_in peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &length) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == redis.port())
            ours += shutdown(fd, SHUT_WR) == 0;
    }
    ASSERT_EQ(ours, 1);
    EXPECT_EQ(tarvex_box_pace(&one).source, tarvex_box_pacing_slot_t::file);
    tarvex_i_box_retry_state_destroy(&two);
    tarvex_i_box_retry_state_destroy(&one);

    for (const auto &[userinfo, db] :
         {std::pair{"default:not-it@", 3}, {":p%40ss%3Aw%25rd@", 99}}) {
        SCOPED_TRACE(userinfo + std::to_string(db));
        configure(userinfo, db);
        tarvex_box_retry_t retry{};
        tarvex_i_box_retry_state_create("79", per_second, &retry);
        slot = tarvex_box_pace(&retry);
        EXPECT_EQ(slot.source, tarvex_box_pacing_slot_t::file);
        EXPECT_NE(slot.stamp_us, 0);
        tarvex_i_box_retry_state_destroy(&retry);
    }
    std::string log = scratch.debug_text();
    EXPECT_NE(log.find("cannot be used (AUTH: WRONGPASS"), std::string::npos) << log;
    EXPECT_NE(log.find("cannot be used (SELECT: "), std::string::npos) << log;
    EXPECT_EQ(log.find("not-it"), std::string::npos) << log;
}

} // namespace
