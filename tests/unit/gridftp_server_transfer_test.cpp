/* The server's store path over a real loopback data connection: data the
 * client sends while the plug-in has no read registered is read ahead and
 * handed over later, in order, with the end of data where it belongs; data
 * beyond the end the plug-in waits for still fails the store; a transfer
 * waiting on an idle client still ends when the plug-in finishes or the
 * client aborts. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "box_wait.h"
#include "transfer.h"

using namespace tarvex_server;

namespace {

constexpr auto deadline = std::chrono::seconds(20);

struct Completion {
    bool ok = false;
    tarvex_size_t n = 0;
    tarvex_off_t offset = 0;
    bool eof = false;
};

/* The plug-in's side: reads registered one at a time, completions kept. */
class Reads {
public:
    static void done(tarvex_gfs_operation_t, tarvex_result_t result, tarvex_byte_t *,
                     tarvex_size_t n, tarvex_off_t offset, bool eof, void *arg)
    {
        auto *self = static_cast<Reads *>(arg);
        std::lock_guard lock(self->mu_);
        self->got_.push_back({result == TARVEX_SUCCESS, n, offset, eof});
        tarvex_error_discard(result);
        self->cv_.notify_all();
    }
    /* Registers a read of `len` bytes at the end of `data` and waits for it. */
    Completion read(Transfer &t, std::string &data, size_t len)
    {
        size_t at = data.size();
        data.resize(at + len);
        tarvex_result_t r = t.register_read(
            nullptr, reinterpret_cast<tarvex_byte_t *>(data.data() + at), len, done, this);
        EXPECT_EQ(r, TARVEX_SUCCESS);
        std::unique_lock lock(mu_);
        EXPECT_TRUE(cv_.wait_for(lock, deadline, [this] { return !got_.empty(); }));
        Completion c = got_.empty() ? Completion{} : got_.front();
        if (!got_.empty())
            got_.pop_front();
        data.resize(at + c.n);
        return c;
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<Completion> got_;
};

std::string pattern(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>(i * 7 % 251);
    return s;
}

/* A passive data connection on 127.0.0.1, a transfer on it and the
 * client's socket. */
class Store {
public:
    Store()
    {
        Endpoints ep;
        auto *local = reinterpret_cast<sockaddr_in *>(&ep.local);
        local->sin_family = AF_INET;
        local->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ep.peer = ep.local;
        std::string reply;
        EXPECT_TRUE(setup_.passive(ep, true, 0, 0, reply)) << reply;
        int port = atoi(reply.c_str() + reply.find("|||") + 3);
        client_ = socket(AF_INET, SOCK_STREAM, 0);
        // A small send buffer: what the client gets off without reads is
        // what the server's socket buffer (at most 8 MiB) and its read-ahead
        // take.
        int small = 64 << 10;
        setsockopt(client_, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        sockaddr_in to = *local;
        to.sin_port = htons(static_cast<uint16_t>(port));
        EXPECT_EQ(connect(client_, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        TransferParams params;
        params.what = "STOR /t";
        params.send_reply = [](int, const std::string &) { return true; };
        params.notify = [] {};
        transfer_ = std::make_unique<Transfer>(setup_, std::move(params));
        transfer_->begin(true);
    }
    ~Store()
    {
        transfer_->plugin_finished();
        transfer_->close(false); // a sender still blocked fails now
        if (sender_.joinable())
            sender_.join();
        if (client_ >= 0)
            close(client_);
    }
    Transfer &transfer() { return *transfer_; }
    /* The client sends `data` on a thread of its own, then ends the data if
     * asked. */
    void send(std::string data, bool end)
    {
        if (sender_.joinable())
            sender_.join();
        sent_ = false;
        sender_ = std::thread([this, data = std::move(data), end] {
            for (size_t at = 0; at < data.size();) {
                ssize_t n = ::send(client_, data.data() + at, data.size() - at, MSG_NOSIGNAL);
                if (n <= 0)
                    return;
                at += static_cast<size_t>(n);
            }
            if (end)
                shutdown(client_, SHUT_WR);
            sent_ = true;
        });
    }
    /* Whether the client's end of the data connection sees it closed. */
    bool client_sees_end()
    {
        pollfd p{client_, POLLIN, 0};
        char c;
        return poll(&p, 1, int(deadline / std::chrono::milliseconds(1))) == 1 &&
               recv(client_, &c, 1, MSG_DONTWAIT) <= 0;
    }
    /* Whether the client got everything off while no read was registered. */
    bool sent_without_reads()
    {
        return tarvex_test::eventually([this] { return sent_.load(); }, deadline);
    }

private:
    DataSetup setup_;
    int client_ = -1;
    std::unique_ptr<Transfer> transfer_;
    std::thread sender_;
    std::atomic<bool> sent_{false};
};

TEST(ServerTransfer, DataSentBeforeTheReadsArriveInOrderWithTheEndLast)
{
    /* After the first read, more than the socket buffers can take: the
     * client gets it all off only because the transfer reads ahead, and
     * the reads then take from the read-ahead and from the socket. */
    const std::string sent = pattern((10u << 20) + 7);
    Store store;
    Reads reads;
    std::string got;
    store.send(sent.substr(0, 1 << 20), false);
    Completion first = reads.read(store.transfer(), got, 1 << 20);
    EXPECT_TRUE(first.ok && first.n == 1u << 20 && first.offset == 0 && !first.eof);
    store.send(sent.substr(1 << 20), true);
    EXPECT_TRUE(store.sent_without_reads());
    Completion c;
    tarvex_off_t offset = 1 << 20;
    do {
        c = reads.read(store.transfer(), got, 3 << 20);
        ASSERT_TRUE(c.ok);
        EXPECT_EQ(c.offset, offset);
        offset += static_cast<tarvex_off_t>(c.n);
    } while (!c.eof && got.size() < sent.size());
    if (!c.eof) // the data filled the last read exactly: the end comes next
        c = reads.read(store.transfer(), got, 1 << 20);
    EXPECT_TRUE(c.ok && c.eof);
    EXPECT_TRUE(got == sent) << "got " << got.size() << " of " << sent.size() << " bytes";
    EXPECT_EQ(store.transfer().bytes(), static_cast<long long>(sent.size()));
    EXPECT_EQ(store.transfer().failure(), "");
}

TEST(ServerTransfer, DataBeyondTheAwaitedEndFailsTheStore)
{
    Store store;
    Reads reads;
    std::string got;
    store.send(pattern(1001), true); // one byte more than the plug-in wants
    EXPECT_TRUE(reads.read(store.transfer(), got, 1000).ok);
    EXPECT_TRUE(store.sent_without_reads());
    Completion end = reads.read(store.transfer(), got, 0);
    EXPECT_FALSE(end.ok);
    EXPECT_EQ(store.transfer().failure(), "426 More data than announced; transfer aborted.");
    // The connection goes with the transfer, before the reply is sent.
    store.transfer().plugin_finished();
    store.transfer().close(false);
    EXPECT_TRUE(store.client_sees_end());
}

// The plug-in finishing, or an ABOR, while the client sends nothing.
TEST(ServerTransfer, AnIdleClientDoesNotHoldTheTransfer)
{
    for (bool abort : {false, true}) {
        Store store;
        Reads reads;
        std::string got;
        store.send(pattern(1000), false);
        EXPECT_TRUE(reads.read(store.transfer(), got, 1000).ok);
        if (abort) {
            store.transfer().abort();
            tarvex_byte_t buf[16];
            tarvex_result_t refused =
                store.transfer().register_read(nullptr, buf, sizeof buf, Reads::done, &reads);
            EXPECT_NE(refused, TARVEX_SUCCESS);
            tarvex_error_discard(refused);
        }
        store.transfer().plugin_finished();
        Transfer &t = store.transfer();
        EXPECT_TRUE(tarvex_test::eventually([&t] { return t.done(); }, deadline)) << abort;
    }
}

} // namespace
