// The scripted driver, exercised through a small fake plug-in that behaves
// like a real one: it answers from the calling thread, frees stat names
// right after each answer, sends through register_write with two writes in
// flight and waits for register_read completions on a condition variable
// while holding its lock.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "driver.h"
#include "tarvex_gridftp_server.h"

namespace {

using tarvex_test::event_kind;

struct fake_session {
    std::string content = "0123456789abcdef";
    std::string received;
    std::vector<tarvex_off_t> read_offsets;
    std::thread::id completer;
};

void fake_start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *info)
{
    char *policy = nullptr;
    tarvex_gridftp_server_get_config_data(op, "config", &policy);
    free(policy);
    tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;MD5:8;");
    char home[] = "/";
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, new fake_session,
                                                 info->username, home);
}

void fake_destroy(void *arg)
{
    delete static_cast<fake_session *>(arg);
}

// Names are allocated per answer and scribbled over and freed right after
// it, as plug-ins do.
void answer_stat(tarvex_gfs_operation_t op, const std::vector<std::string> &names,
                 bool partial)
{
    std::vector<tarvex_gridftp_server_control_stat_t> entries(names.size());
    for (size_t i = 0; i < names.size(); i++) {
        entries[i].name = strdup(names[i].c_str());
        entries[i].mode = 040700;
        entries[i].size = static_cast<tarvex_off_t>(i);
    }
    (partial ? tarvex_gridftp_server_finished_stat_partial : tarvex_gridftp_server_finished_stat)(
        op, TARVEX_SUCCESS, entries.data(), static_cast<int>(entries.size()));
    for (auto &e : entries) {
        memset(e.name, 'X', strlen(e.name));
        free(e.name);
    }
}

void fake_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *)
{
    if (info->file_only)
        return answer_stat(op, {info->pathname}, false);
    answer_stat(op, {".", "a"}, true);
    answer_stat(op, {"b"}, false);
}

// What a transfer waits for; completions update it under its lock.
struct waiter {
    std::mutex m;
    std::condition_variable cv;
    int pending = 0;   // registered, not completed yet
    bool eof = false;
    tarvex_result_t result = TARVEX_SUCCESS;
    fake_session *s = nullptr;
};

void write_done(tarvex_gfs_operation_t, tarvex_result_t result, tarvex_byte_t *, tarvex_size_t,
                void *arg)
{
    auto *w = static_cast<waiter *>(arg);
    std::lock_guard lock(w->m);
    if (result != TARVEX_SUCCESS)
        w->result = result;
    w->pending--;
    w->cv.notify_all();
}

// Sends each read range in two halves, both in flight at once.
void fake_send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *, void *arg)
{
    auto *s = static_cast<fake_session *>(arg);
    auto *data = reinterpret_cast<tarvex_byte_t *>(s->content.data());
    const auto size = static_cast<tarvex_off_t>(s->content.size());
    waiter w;
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_off_t offset, length = -1;
    do {
        tarvex_gridftp_server_get_read_range(op, &offset, &length);
        if (length == 0)
            break;
        tarvex_off_t end = length < 0 ? size : std::min(size, offset + length);
        tarvex_off_t mid = offset + (end - offset) / 2;
        std::unique_lock lock(w.m);
        w.pending = 2;
        tarvex_gridftp_server_register_write(op, data + offset, mid - offset, offset, -1,
                                             write_done, &w);
        tarvex_gridftp_server_register_write(op, data + mid, end - mid, mid, -1, write_done,
                                             &w);
        w.cv.wait(lock, [&] { return w.pending == 0; });
        lock.unlock();
        tarvex_gridftp_server_update_bytes_written(op, offset, end - offset);
    } while (length > 0);
    tarvex_gridftp_server_finished_transfer(op, w.result);
}

void read_done(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *buffer,
               tarvex_size_t nbytes, tarvex_off_t offset, bool eof, void *arg)
{
    auto *w = static_cast<waiter *>(arg);
    {
        std::lock_guard lock(w->m);
        w->s->received.append(reinterpret_cast<char *>(buffer), nbytes);
        w->s->read_offsets.push_back(offset);
        w->s->completer = std::this_thread::get_id();
        w->result = result;
        w->eof = eof;
        w->pending--;
        w->cv.notify_all();
    }
    tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(nbytes));
}

// Registers one read at a time while holding its lock and waits for it.
void fake_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *, void *arg)
{
    tarvex_off_t offset, length;
    tarvex_gridftp_server_get_write_range(op, &offset, &length);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_byte_t buffer[64];
    waiter w;
    w.s = static_cast<fake_session *>(arg);
    std::unique_lock lock(w.m);
    tarvex_result_t r;
    do {
        w.pending = 1;
        r = tarvex_gridftp_server_register_read(op, buffer, sizeof buffer, read_done, &w);
        if (r != TARVEX_SUCCESS)
            break;
        w.cv.wait(lock, [&] { return w.pending == 0; });
        r = w.result;
    } while (r == TARVEX_SUCCESS && !w.eof);
    lock.unlock();
    tarvex_gridftp_server_finished_transfer(op, r);
}

const tarvex_gfs_storage_iface_t fake_iface = {
    TARVEX_GFS_DSI_DESCRIPTOR_SENDER | TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING,
    fake_start, fake_destroy, nullptr, fake_send, fake_recv, nullptr, nullptr, nullptr,
    nullptr, nullptr, fake_stat, nullptr, nullptr, nullptr};

struct DriverTest : ::testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_gfs_module), 0);
        session = static_cast<fake_session *>(d.start(&fake_iface, "alice"));
        ASSERT_NE(session, nullptr);
    }
    void TearDown() override
    {
        d.destroy(&fake_iface, session);
        tarvex_module_deactivate(&tarvex_i_gfs_module);
    }
    std::vector<event_kind> kinds() const
    {
        std::vector<event_kind> out;
        for (const auto &e : d.events())
            out.push_back(e.kind);
        return out;
    }

    tarvex_test::driver d;
    fake_session *session = nullptr;
};

TEST_F(DriverTest, RecordsEventsInOrderWithCopiedStatEntries)
{
    EXPECT_EQ(d.stat(&fake_iface, session, "/dir/file", true), TARVEX_SUCCESS);
    EXPECT_EQ(d.stat(&fake_iface, session, "/dir", false), TARVEX_SUCCESS);

    EXPECT_EQ(d.config_requests(), std::vector<std::string>{"config"});
    EXPECT_EQ(kinds(), (std::vector{event_kind::checksum_support, event_kind::session_start,
                                    event_kind::stat, event_kind::stat_partial,
                                    event_kind::stat}));
    auto e = d.events();
    EXPECT_EQ(e[0].text, "SHA1:1;MD5:8;");
    EXPECT_EQ(e[0].op, e[1].op);
    EXPECT_EQ(e[1].session_arg, session);
    EXPECT_EQ(e[1].text, "alice");
    EXPECT_EQ(e[1].home_dir, "/");
    EXPECT_NE(e[2].op, e[3].op);   // one operation per call
    EXPECT_EQ(e[3].op, e[4].op);
    ASSERT_EQ((std::vector{e[2].entries.size(), e[3].entries.size(), e[4].entries.size()}),
              (std::vector<size_t>{1, 2, 1}));
    EXPECT_EQ(e[2].entries[0].name, "/dir/file");
    EXPECT_EQ(e[3].entries[0].name, ".");
    EXPECT_EQ(e[3].entries[1].name, "a");
    EXPECT_EQ(e[4].entries[0].name, "b");
    EXPECT_EQ(e[3].entries[1].mode, 040700);
    EXPECT_EQ(e[3].entries[1].size, 1);
}

TEST_F(DriverTest, SendLandsWritesInFlightAtTheirOffsets)
{
    d.clear_events();
    d.add_read_range(10, 6);
    d.add_read_range(0, 10);
    EXPECT_EQ(d.send(&fake_iface, session, "/f"), TARVEX_SUCCESS);

    EXPECT_EQ(d.sent_data(), session->content);
    EXPECT_EQ(d.sent_writes(),
              (std::vector<std::pair<tarvex_off_t, tarvex_size_t>>{{10, 3}, {13, 3}, {0, 5},
                                                                   {5, 5}}));
    // The first completion waits for the plug-in, which registers the second.
    EXPECT_GE(d.max_writes_in_flight(), 2);
    EXPECT_EQ(d.bytes_written_total(), 16);
    EXPECT_EQ(kinds(), (std::vector{event_kind::begin_transfer, event_kind::bytes_written,
                                    event_kind::bytes_written, event_kind::finished_transfer}));

    // A write that would cross the scripted limit is refused, not sunk.
    d.fail_send_after(10, "client went away");
    d.add_read_range(0, -1);
    tarvex_result_t refused = d.send(&fake_iface, session, "/f");
    EXPECT_EQ(tarvex_test::ftp_reply(refused), "451 client went away\r\n");
    EXPECT_EQ(d.sent_data(), session->content.substr(0, 8));
    // Replies are rendered while the error still exists.
    EXPECT_EQ(d.events(event_kind::finished_transfer).back().reply, "451 client went away\r\n");
    tarvex_error_discard(refused);
}

TEST_F(DriverTest, ReceiveCompletesOnAnotherThreadInChunks)
{
    d.set_receive_data("hello, world");
    d.set_read_chunk(5);
    EXPECT_EQ(d.recv(&fake_iface, session, "/up", 12, true), TARVEX_SUCCESS);
    EXPECT_EQ(session->received, "hello, world");
    // The data ended inside a buffer: eof came with the last bytes.
    EXPECT_EQ(session->read_offsets, (std::vector<tarvex_off_t>{0, 5, 10}));
    EXPECT_NE(session->completer, std::this_thread::get_id());
    EXPECT_EQ(d.received_bytes(), 12u);
    EXPECT_EQ(d.bytes_received_total(), 12);
    EXPECT_EQ(d.events(event_kind::bytes_received).size(), 3u);

    // Offsets follow the write range; data that exactly fills the buffers
    // (64 bytes) ends with an empty eof read.
    session->received.clear();
    session->read_offsets.clear();
    d.add_write_range(1000, -1);
    d.set_read_chunk(0);
    d.set_receive_pattern(128);
    EXPECT_EQ(d.recv(&fake_iface, session, "/up", 0, false), TARVEX_SUCCESS);
    EXPECT_EQ(session->received, tarvex_test::pattern(128, 1000));
    EXPECT_EQ(session->read_offsets, (std::vector<tarvex_off_t>{1000, 1064, 1128}));

    d.fail_receive_after(5, "data channel closed");
    tarvex_result_t refused = d.recv(&fake_iface, session, "/up", 10, true);
    EXPECT_EQ(tarvex_test::ftp_reply(refused), "451 data channel closed\r\n");
    tarvex_error_discard(refused);
}

} // namespace
