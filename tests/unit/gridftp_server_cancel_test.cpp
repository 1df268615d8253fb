// Cancelling an operation: what the library does itself (the flag, the
// calling thread's operation, registrations refused).
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "driver.h"
#include "tarvex_gridftp_server.h"

namespace {

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

} // namespace
