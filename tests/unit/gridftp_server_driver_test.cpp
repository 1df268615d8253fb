// The scripted driver, exercised through a small fake plug-in that behaves
// like a real one: it answers from the calling thread, frees stat names
// right after each answer, sends through register_write and waits for
// register_read completions on a condition variable while holding its lock.
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
    time_t modtime = 0;
    std::thread::id caller;
    std::thread::id completer;
};

tarvex_result_t ftp_error(int code, const char *cls, const char *message)
{
    return tarvex_error_put(
        tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, code, cls, "%s", message));
}

void fake_start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *info)
{
    char *policy = nullptr;
    tarvex_gridftp_server_get_config_data(op, "config", &policy);
    if (policy == nullptr) {
        tarvex_gridftp_server_finished_session_start(
            op, ftp_error(500, "INTERNAL_ERROR", "GridFTP-Error: Missing policy."), nullptr,
            nullptr, nullptr);
        return;
    }
    free(policy);
    auto *s = new fake_session;
    s->caller = std::this_thread::get_id();
    tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;MD5:8;");
    char home[] = "/";
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, s, info->username, home);
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
    auto *array = entries.empty() ? nullptr : entries.data();
    int count = static_cast<int>(entries.size());
    if (partial)
        tarvex_gridftp_server_finished_stat_partial(op, TARVEX_SUCCESS, array, count);
    else
        tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, array, count);
    for (auto &e : entries) {
        memset(e.name, 'X', strlen(e.name));
        free(e.name);
    }
}

void fake_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *)
{
    if (info->file_only) {
        answer_stat(op, {info->pathname}, false);
        return;
    }
    answer_stat(op, {".", "a"}, true);
    answer_stat(op, {"b"}, false);
}

void fake_command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, void *)
{
    if (info->command != TARVEX_GFS_CMD_CKSM) {
        tarvex_gridftp_server_finished_command(
            op, tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
                    nullptr, nullptr, 500, "NOT_IMPLEMETED", nullptr)),
            nullptr);
        return;
    }
    char progress[] = "1024";
    char sum[] = "d41d8cd98f00b204e9800998ecf8427e";
    tarvex_gridftp_server_intermediate_command(op, TARVEX_SUCCESS, progress);
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, sum);
}

struct waiter {
    std::mutex m;
    std::condition_variable cv;
    int pending = 0;
    bool done = false;
    bool eof = false;
    size_t got = 0;
    tarvex_off_t offset = 0;
    tarvex_result_t result = TARVEX_SUCCESS;
    std::thread::id thread;
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
    for (;;) {
        tarvex_off_t offset, length;
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
        if (length < 0)
            break;
    }
    tarvex_gridftp_server_finished_transfer(op, w.result);
}

void read_done(tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *,
               tarvex_size_t nbytes, tarvex_off_t offset, bool eof, void *arg)
{
    auto *w = static_cast<waiter *>(arg);
    {
        std::lock_guard lock(w->m);
        w->result = result;
        w->eof = eof;
        w->got = nbytes;
        w->offset = offset;
        w->done = true;
        w->thread = std::this_thread::get_id();
        w->cv.notify_all();
    }
    tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(nbytes));
}

// Registers one read at a time while holding its lock and waits for it.
void fake_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *, void *arg)
{
    auto *s = static_cast<fake_session *>(arg);
    tarvex_off_t offset, length;
    tarvex_gridftp_server_get_write_range(op, &offset, &length);
    tarvex_result_t r = tarvex_gridftp_server_get_recv_modification_time(op, &s->modtime);
    if (r != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_transfer(op, r);
        return;
    }
    tarvex_size_t block = 0;
    tarvex_gridftp_server_get_block_size(op, &block);
    std::vector<tarvex_byte_t> buffer(block);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);

    waiter w;
    std::unique_lock lock(w.m);
    for (;;) {
        w.done = false;
        r = tarvex_gridftp_server_register_read(op, buffer.data(), buffer.size(), read_done,
                                                &w);
        if (r != TARVEX_SUCCESS)
            break;
        w.cv.wait(lock, [&] { return w.done; });
        s->completer = w.thread;
        s->received.append(reinterpret_cast<char *>(buffer.data()), w.got);
        s->read_offsets.push_back(w.offset);
        r = w.result;
        if (r != TARVEX_SUCCESS || w.eof)
            break;
    }
    lock.unlock();
    tarvex_gridftp_server_finished_transfer(op, r);
}

const tarvex_gfs_storage_iface_t fake_iface = {
    TARVEX_GFS_DSI_DESCRIPTOR_SENDER | TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING,
    fake_start, fake_destroy, nullptr, fake_send, fake_recv, nullptr, nullptr, nullptr,
    nullptr, fake_command, fake_stat, nullptr, nullptr, nullptr};

struct DriverTest : ::testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_gfs_module), 0);
        d.set_config("config", "{}");
        session = static_cast<fake_session *>(d.start(&fake_iface, "alice"));
        ASSERT_NE(session, nullptr);
        d.clear_events();
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

TEST_F(DriverTest, SessionStartRecordsAnswerAndConfigRequests)
{
    tarvex_test::driver fresh;
    EXPECT_EQ(fresh.start(&fake_iface, "bob"), nullptr);
    EXPECT_EQ(fresh.config_requests(), std::vector<std::string>{"config"});
    auto failed = fresh.events(event_kind::session_start);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].reply, "500-INTERNAL_ERROR\r\n500 GridFTP-Error: Missing policy.\r\n");
    EXPECT_EQ(tarvex_test::ftp_reply(fresh.last_result()), failed[0].reply);

    fresh.set_config("config", "{}");
    void *s = fresh.start(&fake_iface, "bob");
    ASSERT_NE(s, nullptr);
    auto events = fresh.events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1].kind, event_kind::checksum_support);
    EXPECT_EQ(events[1].text, "SHA1:1;MD5:8;");
    EXPECT_EQ(events[2].kind, event_kind::session_start);
    EXPECT_EQ(events[2].session_arg, s);
    EXPECT_EQ(events[2].text, "bob");
    EXPECT_EQ(events[2].home_dir, "/");
    EXPECT_EQ(events[2].op, events[1].op);
    EXPECT_NE(events[2].op, events[0].op);
    fresh.destroy(&fake_iface, s);
}

TEST_F(DriverTest, StatEntriesAreCopiedDuringTheCall)
{
    EXPECT_EQ(d.stat(&fake_iface, session, "/dir/file", true), TARVEX_SUCCESS);
    EXPECT_EQ(d.stat(&fake_iface, session, "/dir", false), TARVEX_SUCCESS);

    auto events = d.events();
    ASSERT_EQ(kinds(), (std::vector{event_kind::stat, event_kind::stat_partial,
                                    event_kind::stat}));
    ASSERT_EQ(events[0].entries.size(), 1u);
    EXPECT_EQ(events[0].entries[0].name, "/dir/file");
    EXPECT_EQ(events[0].entries[0].mode, 040700);
    ASSERT_EQ(events[1].entries.size(), 2u);
    EXPECT_EQ(events[1].entries[0].name, ".");
    EXPECT_EQ(events[1].entries[1].name, "a");
    EXPECT_EQ(events[1].entries[1].size, 1);
    ASSERT_EQ(events[2].entries.size(), 1u);
    EXPECT_EQ(events[2].entries[0].name, "b");
}

TEST_F(DriverTest, CommandsRecordIntermediateAndFinalReplies)
{
    tarvex_gfs_command_info_t cksm{};
    cksm.command = TARVEX_GFS_CMD_CKSM;
    EXPECT_EQ(d.command(&fake_iface, session, cksm), TARVEX_SUCCESS);
    tarvex_gfs_command_info_t chmod{};
    chmod.command = TARVEX_GFS_CMD_SITE_CHMOD;
    tarvex_result_t r = d.command(&fake_iface, session, chmod);

    EXPECT_EQ(tarvex_test::ftp_reply(r), "500 NOT_IMPLEMETED\r\n");
    auto events = d.events();
    ASSERT_EQ(kinds(), (std::vector{event_kind::command_intermediate, event_kind::command,
                                    event_kind::command}));
    EXPECT_EQ(events[0].text, "1024");
    EXPECT_EQ(events[1].text, "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(events[1].reply, "");
    EXPECT_EQ(events[2].text, std::nullopt);
    EXPECT_EQ(events[2].reply, "500 NOT_IMPLEMETED\r\n");
}

TEST_F(DriverTest, SendLandsWritesAtTheirOffsets)
{
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
}

TEST_F(DriverTest, DigestSinkChecksOrderOfHugeSends)
{
    session->content = tarvex_test::pattern(3 << 20);
    d.use_digest_sink();
    d.set_record_progress(false);
    // Odd pieces: the digest does not depend on how the data was split.
    d.add_read_range(0, 1001);
    d.add_read_range(1001, -1);
    EXPECT_EQ(d.send(&fake_iface, session, "/big"), TARVEX_SUCCESS);
    EXPECT_EQ(d.sent_digest(), tarvex_test::pattern_digest(3 << 20));
    EXPECT_EQ(d.sent_bytes(), 3u << 20);
    EXPECT_EQ(d.sink_error(), "");
    EXPECT_TRUE(d.sent_data().empty());
    EXPECT_EQ(d.bytes_written_total(), 3 << 20);
    std::string changed = session->content;
    changed[12345] ^= 1;
    EXPECT_NE(tarvex_test::digest(changed), d.sent_digest());

    d.add_read_range(100, 50);
    d.add_read_range(0, 100);
    EXPECT_EQ(d.send(&fake_iface, session, "/big"), TARVEX_SUCCESS);
    EXPECT_EQ(d.sink_error(), "write at 0, expected 150");
}

TEST_F(DriverTest, ReceiveCompletesOnAnotherThreadInChunks)
{
    d.set_receive_data("hello, world");
    d.set_read_chunk(5);
    d.set_recv_modification_time(1700000000);
    EXPECT_EQ(d.recv(&fake_iface, session, "/up", 12, true), TARVEX_SUCCESS);

    EXPECT_EQ(session->received, "hello, world");
    EXPECT_EQ(session->read_offsets, (std::vector<tarvex_off_t>{0, 5, 10}));
    EXPECT_EQ(session->modtime, 1700000000);
    EXPECT_NE(session->completer, std::this_thread::get_id());
    EXPECT_EQ(d.received_bytes(), 12u);
    EXPECT_EQ(d.bytes_received_total(), 12);
    EXPECT_EQ(d.events(event_kind::bytes_received).size(), 3u);
}

TEST_F(DriverTest, ReceiveOfGeneratedDataFollowsTheWriteRange)
{
    const uint64_t n = (5 << 20) + 7;
    d.set_receive_pattern(n);
    d.add_write_range(1000, -1);
    d.set_block_size(65536);
    EXPECT_EQ(d.recv(&fake_iface, session, "/up", 0, false), TARVEX_SUCCESS);

    EXPECT_EQ(session->received.size(), n);
    EXPECT_TRUE(session->received == tarvex_test::pattern(n, 1000));
    EXPECT_EQ(session->read_offsets.front(), 1000);
    // The data ended inside a buffer: eof came with the last bytes.
    EXPECT_EQ(session->read_offsets.size(), n / 65536 + 1);

    // Data that exactly fills the buffers ends with an empty eof read.
    session->received.clear();
    session->read_offsets.clear();
    d.set_receive_data(std::string(65536 * 2, 'z'));
    EXPECT_EQ(d.recv(&fake_iface, session, "/up", 0, true), TARVEX_SUCCESS);
    EXPECT_EQ(session->read_offsets, (std::vector<tarvex_off_t>{0, 65536, 131072}));
}

TEST_F(DriverTest, ScriptedFailuresReachThePlugin)
{
    d.set_receive_data(std::string(100, 'q'));
    d.set_read_chunk(30);
    d.fail_receive_after(60, "data channel closed");
    tarvex_result_t r = d.recv(&fake_iface, session, "/up", 100, true);
    EXPECT_EQ(tarvex_test::ftp_reply(r), "451 data channel closed\r\n");
    EXPECT_EQ(session->received.size(), 60u);

    d.fail_recv_modification_time("bad MFMT");
    r = d.recv(&fake_iface, session, "/up", 100, true);
    EXPECT_EQ(tarvex_test::ftp_reply(r), "451 bad MFMT\r\n");
    auto finished = d.events(event_kind::finished_transfer);
    ASSERT_EQ(finished.size(), 2u);
    EXPECT_EQ(finished[1].reply, "451 bad MFMT\r\n");

    // The second half of the file would cross the limit: refused, not sunk.
    d.fail_send_after(10, "client went away");
    d.add_read_range(0, -1);
    r = d.send(&fake_iface, session, "/f");
    EXPECT_EQ(tarvex_test::ftp_reply(r), "451 client went away\r\n");
    EXPECT_EQ(d.sent_data(), session->content.substr(0, 8));
}

} // namespace
