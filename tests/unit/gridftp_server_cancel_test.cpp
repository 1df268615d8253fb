// Cancelling an operation: what the library does itself (the flag, the
// calling thread's operation, registrations refused), and the posix
// plug-in's checksum and transfer loops stopping on it under the driver.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "box_wait.h"
#include "driver.h"
#include "tarvex_gridftp_server.h"

namespace {

namespace fs = std::filesystem;
using tarvex_test::event_kind;

// A sparse file this big costs nothing to make; hashing or sending it
// whole would take tens of seconds, so a loop that does not stop fails the
// test by its result rather than by hanging it.
constexpr tarvex_off_t big = tarvex_off_t(16) << 30;

int provider_registrations = 0;

tarvex_result_t counting_register_read(void *, tarvex_gfs_operation_t, tarvex_byte_t *,
                                       tarvex_size_t, tarvex_gridftp_server_read_cb_t, void *)
{
    ++provider_registrations;
    return TARVEX_SUCCESS;
}

TEST(OperationCancel, FlagCurrentOperationAndRefusedRegistrations)
{
    tarvex_gfs_operation_provider_t provider{};
    provider.register_read = counting_register_read;
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&provider, nullptr);
    ASSERT_NE(op, nullptr);
    tarvex_byte_t buffer[4];
    auto read_cb = [](tarvex_gfs_operation_t, tarvex_result_t, tarvex_byte_t *, tarvex_size_t,
                      tarvex_off_t, bool, void *) {};

    EXPECT_FALSE(tarvex_gridftp_server_operation_cancelled(op));
    EXPECT_EQ(tarvex_gridftp_server_register_read(op, buffer, 4, read_cb, nullptr), TARVEX_SUCCESS);
    EXPECT_EQ(provider_registrations, 1);

    EXPECT_EQ(tarvex_gfs_operation_set_current(op), nullptr);
    EXPECT_FALSE(tarvex_gridftp_server_thread_cancelled());
    tarvex_gfs_operation_cancel(op);
    tarvex_gfs_operation_cancel(op); // any number of times
    EXPECT_TRUE(tarvex_gridftp_server_operation_cancelled(op));
    EXPECT_TRUE(tarvex_gridftp_server_thread_cancelled());
    // Another thread has no current operation of its own.
    bool elsewhere = true;
    std::thread([&] { elsewhere = tarvex_gridftp_server_thread_cancelled(); }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_EQ(tarvex_gfs_operation_set_current(nullptr), op);
    EXPECT_FALSE(tarvex_gridftp_server_thread_cancelled());

    // The provider never sees a registration of a cancelled operation.
    tarvex_result_t r = tarvex_gridftp_server_register_read(op, buffer, 4, read_cb, nullptr);
    EXPECT_NE(r, TARVEX_SUCCESS);
    EXPECT_NE(tarvex_test::ftp_reply(r).find("cancelled"), std::string::npos);
    tarvex_error_discard(r);
    EXPECT_EQ(provider_registrations, 1);
    EXPECT_FALSE(tarvex_gridftp_server_operation_cancelled(nullptr));
    tarvex_gfs_operation_destroy(op);
}

class PosixCancel : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tarvex-cancel-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        tarvex_extension_set_search_path(TARVEX_POSIX_LIB_DIR);
        iface_ = tarvex_gfs_dsi_load("posix");
        ASSERT_NE(iface_, nullptr);
        d_.set_config("config", R"({"root": ")" + root_ + R"("})");
        session_ = d_.start(iface_, "tester");
        ASSERT_NE(session_, nullptr);
        int fd = open((root_ + "/big.bin").c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, big), 0);
        close(fd);
    }

    void TearDown() override
    {
        if (session_ != nullptr)
            d_.destroy(iface_, session_);
        if (iface_ != nullptr)
            tarvex_gfs_dsi_unload("posix");
        fs::remove_all(root_);
    }

    std::string root_;
    const tarvex_gfs_storage_iface_t *iface_ = nullptr;
    void *session_ = nullptr;
    tarvex_test::driver d_;
};

TEST_F(PosixCancel, ChecksumStopsWhenCancelledFromAnotherThread)
{
    EXPECT_FALSE(d_.cancel()); // nothing runs yet
    // Polls until the command is running, then cancels it.
    std::atomic<bool> cancelled{false};
    std::thread canceller(
        [&] { cancelled = tarvex_test::eventually([&] { return d_.cancel(); }); });
    std::string path = "/big.bin";
    char alg[] = "MD5";
    tarvex_gfs_command_info_t info{};
    info.command = TARVEX_GFS_CMD_CKSM;
    info.pathname = path.data();
    info.cksm_alg = alg;
    info.cksm_length = -1;
    tarvex_result_t r = d_.command(iface_, session_, info);
    canceller.join();
    EXPECT_TRUE(cancelled);
    EXPECT_NE(r, TARVEX_SUCCESS);
    EXPECT_NE(tarvex_test::ftp_reply(r).find("CANCELLED"), std::string::npos)
        << tarvex_test::ftp_reply(r);
    tarvex_error_discard(r);
    auto answers = d_.events(event_kind::command);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_FALSE(answers[0].text.has_value()); // no checksum
}

TEST_F(PosixCancel, TransfersStopAtTheCancelPoint)
{
    // A send cancelled after 4 MiB: only what was in flight then goes out.
    d_.use_digest_sink();
    d_.add_read_range(0, -1);
    d_.cancel_after_bytes(4 << 20);
    tarvex_result_t r = d_.send(iface_, session_, "/big.bin");
    EXPECT_NE(r, TARVEX_SUCCESS);
    tarvex_error_discard(r);
    EXPECT_GE(d_.sent_bytes(), uint64_t(4) << 20);
    EXPECT_LT(d_.sent_bytes(), uint64_t(64) << 20);

    // A store cancelled after 4 MiB writes no further: the file ends
    // within what the plug-in had read by then.
    d_.set_receive_pattern(uint64_t(1) << 30);
    r = d_.recv(iface_, session_, "/stored.bin", 0, true);
    EXPECT_NE(r, TARVEX_SUCCESS);
    tarvex_error_discard(r);
    EXPECT_LT(d_.received_bytes(), uint64_t(64) << 20);
    EXPECT_LE(fs::file_size(root_ + "/stored.bin"), d_.received_bytes());

    // Cancelled before the plug-in is called: it answers at once.
    d_.cancel_after_bytes(0);
    d_.add_read_range(0, -1);
    r = d_.send(iface_, session_, "/big.bin");
    EXPECT_NE(r, TARVEX_SUCCESS);
    tarvex_error_discard(r);
    EXPECT_EQ(d_.sent_bytes(), 0u);

    // Not cancelled, the same store goes through.
    d_.cancel_after_bytes(std::nullopt);
    d_.set_receive_pattern(100000);
    EXPECT_EQ(d_.recv(iface_, session_, "/whole.bin", 0, true), TARVEX_SUCCESS);
    EXPECT_EQ(fs::file_size(root_ + "/whole.bin"), 100000u);
}

} // namespace
