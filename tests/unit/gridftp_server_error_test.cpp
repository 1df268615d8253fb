// FTP response errors, system errors, operations over sparse providers and
// loading plug-ins by name.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tarvex_gridftp_server.h"

namespace {

struct gfs_fixture : ::testing::Test {
    void SetUp() override { ASSERT_EQ(tarvex_module_activate(&tarvex_i_gfs_module), 0); }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_gfs_module); }
};

std::string printable(const tarvex_object_t *e)
{
    char *text = tarvex_error_print_one(e);
    std::string out = text != nullptr ? text : "(null)";
    free(text);
    return out;
}

using GfsError = gfs_fixture;

TEST_F(GfsError, FtpResponseErrorCarriesCodeClassAndMessage)
{
    tarvex_object_t *e = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 553, "NOT_A_DIRECTORY", "GridFTP-Path: %s (%d)", "/f", 7);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(e), 553);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(e), "NOT_A_DIRECTORY");
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_message(e), "GridFTP-Path: /f (7)");
    EXPECT_EQ(tarvex_error_get_type(e), TARVEX_GFS_ERROR_FTP_RESPONSE);
    EXPECT_STREQ(tarvex_error_get_message(e), "GridFTP-Path: /f (7)");
    EXPECT_EQ(printable(e), "GridFTP-Path: /f (7)");

    // A copy is independent of the original.
    tarvex_object_t *copy = tarvex_object_copy(e);
    tarvex_object_free(e);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(copy), 553);
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_class(copy), "NOT_A_DIRECTORY");
    EXPECT_STREQ(tarvex_gfs_ftp_response_error_get_message(copy), "GridFTP-Path: /f (7)");
    tarvex_object_free(copy);

    tarvex_object_t *bare =
        tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 500, nullptr, nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_class(bare), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_message(bare), nullptr);
    EXPECT_EQ(printable(bare), "");
    tarvex_object_free(bare);
}

TEST_F(GfsError, AccessorsAndFindOnOtherErrors)
{
    tarvex_object_t *ftp = tarvex_gfs_ftp_response_error_construct(
        nullptr, TARVEX_ERROR_CONSTRUCT(nullptr, nullptr, 1, "innermost"), 550,
        "PATH_NOT_FOUND", "m");
    tarvex_object_t *outer =
        TARVEX_ERROR_CONSTRUCT(nullptr, ftp, TARVEX_GFS_ERROR_GENERIC, "wrapper");

    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(outer), 0);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_class(outer), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_message(outer), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_get_code(nullptr), 0);

    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(outer), ftp);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(ftp), ftp);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(tarvex_error_get_cause(ftp)), nullptr);
    EXPECT_EQ(tarvex_gfs_ftp_response_error_find(nullptr), nullptr);
    tarvex_object_free(outer);
}

TEST_F(GfsError, SystemErrorNamesTheCallAndKeepsErrno)
{
    tarvex_result_t r =
        tarvex_i_gfs_error_system(nullptr, ENOMEM, "System error%s%s", " in ", "malloc");
    ASSERT_NE(r, TARVEX_SUCCESS);
    tarvex_object_t *e = tarvex_error_peek(r);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(tarvex_error_get_message(e), "System error in malloc");
    EXPECT_EQ(tarvex_error_errno_get_errno(e), ENOMEM);
    EXPECT_EQ(tarvex_error_get_type(e), TARVEX_GFS_ERROR_SYSTEM_ERROR);

    char *reply = tarvex_gfs_error_to_ftp_reply(r, 0);
    EXPECT_EQ(std::string(reply),
              std::string("451 System error in malloc: ") + strerror(ENOMEM) + "\r\n");
    free(reply);
    tarvex_object_free(tarvex_error_get(r));
}

// ---- operations ----

using GfsOperation = gfs_fixture;

void unexpected_read(tarvex_gfs_operation_t, tarvex_result_t, tarvex_byte_t *, tarvex_size_t,
                     tarvex_off_t, bool, void *)
{
    ADD_FAILURE() << "read completion without a provider";
}

void unexpected_write(tarvex_gfs_operation_t, tarvex_result_t, tarvex_byte_t *,
                      tarvex_size_t, void *)
{
    ADD_FAILURE() << "write completion without a provider";
}

TEST_F(GfsOperation, EmptyProviderAndNullOperationAnswerNeutrally)
{
    tarvex_gfs_operation_provider_t empty{};
    tarvex_gfs_operation_t with_provider = tarvex_gfs_operation_create(&empty, nullptr);
    ASSERT_NE(with_provider, nullptr);

    for (tarvex_gfs_operation_t op : {with_provider, tarvex_gfs_operation_t(nullptr)}) {
        SCOPED_TRACE(op == nullptr ? "NULL operation" : "empty provider");
        tarvex_off_t offset = 7, length = 7;
        tarvex_gridftp_server_get_read_range(op, &offset, &length);
        EXPECT_EQ(offset, 0);
        EXPECT_EQ(length, 0);
        tarvex_gridftp_server_get_write_range(op, &offset, &length);
        EXPECT_EQ(offset, 0);
        EXPECT_EQ(length, -1);

        char *data = reinterpret_cast<char *>(1);
        EXPECT_EQ(tarvex_gridftp_server_get_config_data(op, "creds", &data), TARVEX_SUCCESS);
        EXPECT_EQ(data, nullptr);

        int interval = 9, concurrency = 0;
        tarvex_size_t block = 0;
        time_t modtime = 0;
        tarvex_gridftp_server_get_update_interval(op, &interval);
        tarvex_gridftp_server_get_block_size(op, &block);
        tarvex_gridftp_server_get_optimal_concurrency(op, &concurrency);
        EXPECT_EQ(tarvex_gridftp_server_get_recv_modification_time(op, &modtime),
                  TARVEX_SUCCESS);
        EXPECT_EQ(interval, 0);
        EXPECT_GT(block, 0u);
        EXPECT_EQ(concurrency, 1);
        EXPECT_EQ(modtime, -1);

        tarvex_byte_t buffer[4] = {};
        tarvex_result_t r =
            tarvex_gridftp_server_register_read(op, buffer, 4, unexpected_read, nullptr);
        EXPECT_NE(r, TARVEX_SUCCESS);
        EXPECT_EQ(tarvex_error_get_type(tarvex_error_peek(r)), TARVEX_GFS_ERROR_DATA);
        r = tarvex_gridftp_server_register_write(op, buffer, 4, 0, -1, unexpected_write,
                                                 nullptr);
        EXPECT_NE(r, TARVEX_SUCCESS);

        // Answers go nowhere, and do not crash.
        tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, nullptr);
        tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, nullptr, 0);
        tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
        tarvex_gridftp_server_update_bytes_recvd(op, 10);
        tarvex_gridftp_server_set_checksum_support(op, "MD5:1;");
    }
    tarvex_gfs_operation_destroy(with_provider);
}

struct partial_ctx {
    int commands = 0;
    int intermediates = 0;
    std::string last;
    tarvex_size_t block = 0;
};

TEST_F(GfsOperation, ForwardsToTheSlotsThatAreSet)
{
    partial_ctx ctx;
    tarvex_gfs_operation_t op;
    {
        // The table may go away after create: the operation keeps a copy.
        tarvex_gfs_operation_provider_t p{};
        p.finished_command = [](void *c, tarvex_result_t, const char *text, bool inter) {
            auto *x = static_cast<partial_ctx *>(c);
            (inter ? x->intermediates : x->commands)++;
            x->last = text != nullptr ? text : "";
        };
        p.get_block_size = [](void *, tarvex_size_t *size) { *size = 0; };
        op = tarvex_gfs_operation_create(&p, &ctx);
    }
    EXPECT_EQ(tarvex_gfs_operation_get_context(op), &ctx);

    tarvex_gridftp_server_intermediate_command(op, TARVEX_SUCCESS, const_cast<char *>("1024"));
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, const_cast<char *>("abc"));
    EXPECT_EQ(ctx.intermediates, 1);
    EXPECT_EQ(ctx.commands, 1);
    EXPECT_EQ(ctx.last, "abc");

    // A provider's 0 block size would make plug-ins allocate nothing.
    tarvex_size_t block = 0;
    tarvex_gridftp_server_get_block_size(op, &block);
    EXPECT_GT(block, 0u);
    tarvex_gfs_operation_destroy(op);
}

// ---- plug-ins by name ----

using GfsDsi = gfs_fixture;

TEST_F(GfsDsi, LoadsRegistersAndUnloadsAPlugin)
{
    tarvex_extension_set_search_path(TARVEX_GFS_FIXTURE_DIR);
    const tarvex_gfs_storage_iface_t *iface = tarvex_gfs_dsi_load("gfsfixture");
    ASSERT_NE(iface, nullptr) << tarvex_extension_last_error();
    EXPECT_EQ(iface->descriptor, TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING);
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "gfsfixture"), iface);

    tarvex_gfs_dsi_unload("gfsfixture");
    EXPECT_EQ(tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "gfsfixture"), nullptr);
    tarvex_extension_set_search_path(nullptr);
}

TEST_F(GfsDsi, RefusesMissingAndMalformedNames)
{
    tarvex_extension_set_search_path(TARVEX_GFS_FIXTURE_DIR);
    for (const char *name : {"no_such_plugin", "../gfsfixture", "", "a b", "x/y"}) {
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
