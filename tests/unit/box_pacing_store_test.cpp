/*
 * The policy's pacing store, without a Redis server: which values name a
 * store and why the others are refused, that no store outlives the policy
 * that named it, and that a store which cannot be used leaves pacing to
 * the file, is logged once and is tried again at most once per interval.
 * URLs with a password, plain or escaped, and a database are taken against
 * a real server by box_pacing_cluster_test.
 */
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "box_scratch.h"
#include "box_wait.h"
#include "config.h"
#include "pacing.h"
#include "retry.h"

namespace {

using tarvex_test::box_scratch;

class BoxPacingStore : public ::testing::Test {
protected:
    void TearDown() override
    {
        std::string ignored;
        tarvex_box_pacing_store_configure(nullptr, &ignored);
    }

    /* The policy's outcome: "" for success, else the FTP reply. */
    static std::string parse(const std::string &policy)
    {
        int rate = 16;
        tarvex_result_t result = tarvex_box_config_parse_json(policy.c_str(), &rate);
        std::unique_ptr<tarvex_object_t, void (*)(tarvex_object_t *)> error(
            tarvex_error_get(result), tarvex_object_free);
        if (error == nullptr)
            return "";
        return std::to_string(tarvex_gfs_ftp_response_error_get_code(error.get())) + " " +
               tarvex_gfs_ftp_response_error_get_message(error.get());
    }

    /* Whether a pacing state opened now would go through a store. */
    static bool store_in_use()
    {
        std::unique_ptr<tarvex_box_pacing_s> pacer(tarvex_box_pacing_store_open("1"));
        return pacer != nullptr;
    }
};

TEST_F(BoxPacingStore, WhatThePolicyMayName)
{
    const struct { const char *value; const char *refusal;
    } cases[] = {
        {nullptr, nullptr},
        {"null", nullptr},
        {R"("redis://127.0.0.1")", nullptr},
        {R"("REDIS://pacing.example.org:7000/15")", nullptr},
        {R"("redis://[::1]:6380/2")", nullptr},
        {"5", "it must be a string such as"},
        {R"("127.0.0.1:6379")", "it must be a URL such as"},
        {R"("rediss://127.0.0.1:6379")", "TLS (rediss://) is not available"},
        {R"("redis://")", "the host is missing"},
        {R"("redis://ho st:6379")", "the host is missing or not understood"},
        {R"("redis://[::1:6379")", "an IPv6 address needs its closing"},
        {R"("redis://[::1]x:6379")", "the host is missing or not understood"},
        {R"("redis://127.0.0.1:")", "the port must be a number from 1 to 65535"},
        {R"("redis://127.0.0.1:0")", "the port must be a number from 1 to 65535"},
        {R"("redis://127.0.0.1:65536")", "the port must be a number from 1 to 65535"},
        {R"("redis://127.0.0.1/x")", "the database must be a number"},
        {R"("redis://127.0.0.1/0?timeout=1")", "the URL takes no options"},
        {R"("redis://pacer@127.0.0.1")", "a user name needs a password"},
        {R"("redis://:@127.0.0.1")", "the password is empty or badly escaped"},
        {R"("redis://:pw%zz@127.0.0.1")", "the password is empty or badly escaped"},
        {R"("redis://:pw%00@127.0.0.1")", "the password is empty or badly escaped"},
    };
    for (const auto &c : cases) {
        std::string policy =
            c.value == nullptr ? "{}" : std::string(R"({"pacing_store": )") + c.value + "}";
        std::string got = parse(policy);
        if (c.refusal == nullptr) {
            EXPECT_EQ(got, "") << policy;
            EXPECT_EQ(store_in_use(), c.value != nullptr && std::string(c.value) != "null")
                << policy;
            continue;
        }
        const std::string start =
            "500 GridFTP-Error: Bad \"pacing_store\" in collection storage policy: ";
        EXPECT_EQ(got.substr(0, start.size()), start) << policy;
        EXPECT_NE(got.find(c.refusal, start.size()), std::string::npos) << policy << ": " << got;
        EXPECT_FALSE(store_in_use()) << policy;
    }
}

/* A refused store and a policy without one both leave none of an earlier
 * policy behind; a refusal never repeats the password. */
TEST_F(BoxPacingStore, NoStoreOutlivesItsPolicy)
{
    ASSERT_EQ(parse(R"({"pacing_store": "redis://127.0.0.1"})"), "");
    ASSERT_TRUE(store_in_use());
    std::string got = parse(R"({"pacing_store": "redis://:topsecret@127.0.0.1:99999"})");
    EXPECT_NE(got, "");
    EXPECT_EQ(got.find("topsecret"), std::string::npos) << got;
    EXPECT_FALSE(store_in_use());

    ASSERT_EQ(parse(R"({"pacing_store": "redis://127.0.0.1"})"), "");
    ASSERT_EQ(parse(R"({"user_api_rate_limit": 8})"), "");
    EXPECT_FALSE(store_in_use());
}

/* A loopback port whose listener takes each connection and hangs up at
 * once, counting them: a store that answers nothing. */
class hang_up_listener {
public:
    hang_up_listener()
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<struct sockaddr *>(&address), length) != 0 ||
            listen(fd_, 16) != 0 ||
            getsockname(fd_, reinterpret_cast<struct sockaddr *>(&address), &length) != 0)
            throw std::runtime_error("no loopback listener");
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~hang_up_listener()
    {
        stop_ = true;
        thread_.join();
        close(fd_);
    }
    hang_up_listener(const hang_up_listener &) = delete;
    hang_up_listener &operator=(const hang_up_listener &) = delete;

    int port() const { return port_; }
    int accepted() const { return accepted_; }

private:
    void serve()
    {
        while (!stop_) {
            struct pollfd ready = {fd_, POLLIN, 0};
            if (poll(&ready, 1, 10) != 1)
                continue;
            int client = accept(fd_, nullptr, nullptr);
            if (client >= 0) {
                accepted_++;
                close(client);
            }
        }
    }

    int fd_ = -1;
    int port_ = 0;
    std::atomic<int> accepted_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(BoxPacingStore, AStoreThatCannotBeUsedLeavesPacingToTheFile)
{
    hang_up_listener store;
    box_scratch scratch(TARVEX_BOX_WARN);
    const std::string url = "redis://127.0.0.1:" + std::to_string(store.port());
    ASSERT_EQ(parse(R"({"pacing_store": ")" + url + "\"}"), "");

    constexpr int per_second = 1000, calls = 20;
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("5150", per_second, &retry);
    ASSERT_NE(retry.fd, -1);
    auto begun = std::chrono::steady_clock::now();
    int64_t last = 0;
    for (int i = 0; i < calls; i++) {
        tarvex_box_pacing_slot_t slot = tarvex_box_pace(&retry);
        ASSERT_EQ(slot.source, tarvex_box_pacing_slot_t::file) << i;
        /* The file's own record has the stamp, kept at its spacing. */
        EXPECT_EQ(slot.stamp_us,
                  retry.shared->last.tv_sec * 1000000 + retry.shared->last.tv_nsec / 1000);
        if (i > 0) {
            EXPECT_GE(slot.stamp_us - last, 1000000 / per_second);
        }
        last = slot.stamp_us;
    }
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    tarvex_i_box_retry_state_destroy(&retry);

    /* One connection, and one more per 3 s the calls took; at least the
     * first must have been made. */
    EXPECT_TRUE(tarvex_test::eventually([&] { return store.accepted() >= 1; }));
    EXPECT_LE(store.accepted(), 1 + int(took / 3));
    std::string log = scratch.debug_text();
    size_t line = log.find("pacing store redis://127.0.0.1:" + std::to_string(store.port()) +
                           "/0 cannot be used (");
    ASSERT_NE(line, std::string::npos) << log;
    EXPECT_EQ(log.find("cannot be used", log.find('\n', line)), std::string::npos) << log;
}

} // namespace
