// FTP response errors, system errors, operations over sparse providers and
// loading plug-ins by name.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarvex_gridftp_server.h"

namespace {

struct Gfs : ::testing::Test {
    void SetUp() override { ASSERT_EQ(tarvex_module_activate(&tarvex_i_gfs_module), 0); }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_gfs_module); }
};

void expect_ftp_error(const tarvex_object_t *e, int code, const char *cls, const char *message)
{
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(e), code);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(e), cls);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_message(e), message);
    char *printable = tarvex_error_print_one(e);
    EXPECT_STREQ(printable, message != nullptr ? message : "");
    free(printable);
}

TEST_F(Gfs, FtpResponseErrorAccessorsAndFindThroughAChain)
{
    tarvex_object_t *ftp = tarvex_gfs_ftp_response_error_construct(
        nullptr, TARVEX_ERROR_CONSTRUCT(nullptr, nullptr, 1, "innermost"), 553,
        "NOT_A_DIRECTORY", "GridFTP-Path: %s (%d)", "/f", 7);
    EXPECT_EQ(tarvex_error_get_type(ftp), TARVEX_GFS_ERROR_FTP_RESPONSE);
    expect_ftp_error(ftp, 553, "NOT_A_DIRECTORY", "GridFTP-Path: /f (7)");
    tarvex_object_t *copy = tarvex_object_copy(ftp);   // independent of the original
    tarvex_object_t *outer =
        TARVEX_ERROR_CONSTRUCT(nullptr, ftp, TARVEX_GFS_ERROR_GENERIC, "wrapper");
    tarvex_object_t *bare =
        tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 500, nullptr, nullptr);

    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(outer), ftp);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(ftp), ftp);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(tarvex_error_get_cause(ftp)), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(nullptr), nullptr);
    // The accessors answer for the error itself, not its causes.
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(outer), 0);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_class(outer), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_message(outer), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(nullptr), 0);
    tarvex_object_free(outer);
    expect_ftp_error(copy, 553, "NOT_A_DIRECTORY", "GridFTP-Path: /f (7)");
    expect_ftp_error(bare, 500, nullptr, nullptr);
    tarvex_object_free(copy);
    tarvex_object_free(bare);
}

TEST_F(Gfs, SystemErrorNamesTheCallAndKeepsErrno)
{
    tarvex_result_t r =
        tarvex_i_gfs_error_system(nullptr, ENOMEM, "System error%s%s", " in ", "malloc");
    tarvex_object_t *e = tarvex_error_peek(r);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(tarvex_error_get_type(e), TARVEX_GFS_ERROR_SYSTEM_ERROR);
    EXPECT_EQ(tarvex_error_errno_get_errno(e), ENOMEM);
    char *reply = tarvex_gfs_error_to_ftp_reply(r, 0);
    EXPECT_EQ(reply, std::string("451 System error in malloc: ") + strerror(ENOMEM) + "\r\n");
    free(reply);
    tarvex_error_discard(r);
}

// A provider with two slots set, and no operation at all: the slots that are
// set get the calls, the others answer neutral defaults.
TEST_F(Gfs, OperationOverASparseProvider)
{
    std::string answers;
    tarvex_gfs_operation_t sparse;
    {
        // The table may go away after create: the operation keeps a copy.
        tarvex_gfs_operation_provider_t p{};
        p.finished_command = [](void *c, tarvex_result_t, const char *text, bool) {
            *static_cast<std::string *>(c) += text;
        };
        p.get_block_size = [](void *, tarvex_size_t *size) { *size = 0; };
        sparse = tarvex_gfs_operation_create(&p, &answers);
    }
    ASSERT_NE(sparse, nullptr);
    EXPECT_EQ(tarvex_gfs_operation_get_context(sparse), &answers);

    for (tarvex_gfs_operation_t op : {sparse, tarvex_gfs_operation_t(nullptr)}) {
        SCOPED_TRACE(op == nullptr ? "NULL operation" : "sparse provider");
        tarvex_off_t read[2] = {7, 7}, write[2] = {7, 7};
        tarvex_gridftp_server_get_read_range(op, &read[0], &read[1]);
        tarvex_gridftp_server_get_write_range(op, &write[0], &write[1]);
        EXPECT_EQ(std::vector<tarvex_off_t>({read[0], read[1], write[0], write[1]}),
                  std::vector<tarvex_off_t>({0, 0, 0, -1}));
        char *data = reinterpret_cast<char *>(1);
        EXPECT_EQ(tarvex_gridftp_server_get_config_data(op, "creds", &data), TARVEX_SUCCESS);
        EXPECT_EQ(data, nullptr);
        int interval = 9, concurrency = 0;
        tarvex_size_t block = 0;   // 0 from the provider would make plug-ins allocate nothing
        time_t modtime = 0;
        tarvex_gridftp_server_get_update_interval(op, &interval);
        tarvex_gridftp_server_get_block_size(op, &block);
        tarvex_gridftp_server_get_optimal_concurrency(op, &concurrency);
        EXPECT_EQ(tarvex_gridftp_server_get_recv_modification_time(op, &modtime),
                  TARVEX_SUCCESS);
        EXPECT_EQ(std::vector<long>({interval, concurrency, modtime}),
                  std::vector<long>({0, 1, -1}));
        EXPECT_GT(block, 0u);

        // Refused without a completion (which would fail the test).
        tarvex_byte_t buffer[4] = {};
        tarvex_result_t r = tarvex_gridftp_server_register_read(
            op, buffer, 4, [](auto...) { ADD_FAILURE(); }, nullptr);
        EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(r)), TARVEX_GFS_ERROR_DATA);
        tarvex_error_discard(r);
        r = tarvex_gridftp_server_register_write(op, buffer, 4, 0, -1,
                                                 [](auto...) { ADD_FAILURE(); }, nullptr);
        EXPECT_NE(r, TARVEX_SUCCESS);
        tarvex_error_discard(r);

        tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, const_cast<char *>("done"));
        tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, nullptr, 0);
        tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
        tarvex_gridftp_server_update_bytes_recvd(op, 10);
        tarvex_gridftp_server_set_checksum_support(op, "MD5:1;");
    }
    EXPECT_EQ(answers, "done");   // only the provider's slot was called
    tarvex_gfs_operation_destroy(sparse);
}

TEST_F(Gfs, LoadsPluginsByName)
{
    tarvex_extension_set_search_path(TARVEX_POSIX_LIB_DIR);
    const tarvex_gfs_storage_iface_t *iface = tarvex_gfs_dsi_load("posix");
    ASSERT_NE(iface, nullptr) << tarvex_extension_last_error();
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "posix"), iface);
    tarvex_gfs_dsi_unload("posix");
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "posix"), nullptr);

    for (const char *name : {"no_such_plugin", "../posix", "", "a b", "x/y"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(tarvex_gfs_dsi_load(name), nullptr);
    }
    EXPECT_EQ(tarvex_gfs_dsi_load(nullptr), nullptr);
    // Unloading what was never loaded leaves the library's module alone.
    int before = tarvex_module_activation_count(&tarvex_i_gfs_module);
    tarvex_gfs_dsi_unload("no_such_plugin");
    EXPECT_EQ(tarvex_module_activation_count(&tarvex_i_gfs_module), before);
    tarvex_extension_set_search_path(nullptr);
}

} // namespace
