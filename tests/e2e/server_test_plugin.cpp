// A storage plug-in for the server's end-to-end tests ("e2etest"): it
// answers with behaviours the posix plug-in never shows, chosen by path:
//
//   stat   /many         a listing of 1000 files in batches of 100, with a
//                        pause between batches (streamed listings)
//   stat   /fail-late    a listing that fails after one batch
//   stat   other         not found, as an FTP response error whose cause
//                        chain adds lines to the reply
//   CKSM   /stubborn     ignores cancelling: sleeps 60 s, then "beef"
//   CKSM   other         "cafe"
//   RETR   /async        16 KiB sent and the transfer finished from a thread
//                        of the plug-in after the send function has returned
//   RETR   /fail-mid     1 MiB sent, then a 451 error (from the write's
//                        completion, as is every transfer's end)
//   login  "refuse"      session start fails with a 530 of its own
//   login  "stubborn"    session start ignores cancelling: sleeps 60 s, then
//                        succeeds
//   realpath /link       is /home; /broken fails
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tarvex_gridftp_server.h"

namespace {

int activate();
int deactivate();
const tarvex_version_t version = {0, 1, 0, 0};

tarvex_result_t ftp_error(int code, const char *cls, const char *msg, tarvex_object_t *cause = nullptr)
{
    if (msg == nullptr)
        return tarvex_error_put(
            tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, cls, nullptr));
    return tarvex_error_put(
        tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, cls, "%s", msg));
}

void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *info)
{
    if (info->username != nullptr && strcmp(info->username, "refuse") == 0) {
        tarvex_gridftp_server_finished_session_start(
            op, ftp_error(530, "ACCOUNT_DISABLED", "GridFTP-Error: this account is disabled."),
            nullptr, nullptr, nullptr);
        return;
    }
    if (info->username != nullptr && strcmp(info->username, "stubborn") == 0)
        std::this_thread::sleep_for(std::chrono::seconds(60));
    tarvex_gridftp_server_set_checksum_support(op, "CAFE:1;");
    char home[] = "/home";
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, home);
}

tarvex_gridftp_server_control_stat_t entry(char *name, int mode, tarvex_off_t size)
{
    tarvex_gridftp_server_control_stat_t s{};
    s.mode = mode;
    s.nlink = 1;
    s.name = name;
    s.size = size;
    s.mtime = 1700000000;
    s.ino = static_cast<int>(size) + 7;
    return s;
}

void stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *)
{
    std::string path = info->pathname;
    if (path == "/" || path == "/home" || path == "/many" || path == "/fail-late") {
        char dot[] = ".";
        auto self = entry(dot, 040755, 0);
        if (info->file_only || path == "/" || path == "/home") {
            tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &self, 1);
            return;
        }
        std::vector<std::string> names;
        names.reserve(100); // the entries point into these strings: no reallocation
        std::vector<tarvex_gridftp_server_control_stat_t> batch;
        for (int i = 0; i < 1000; ++i) {
            names.push_back("file" + std::to_string(i));
            batch.push_back(entry(names.back().data(), 0100644, i));
            if (batch.size() == 100) {
                tarvex_gridftp_server_finished_stat_partial(op, TARVEX_SUCCESS, batch.data(), 100);
                batch.clear();
                names.clear();
                if (path == "/fail-late") {
                    tarvex_gridftp_server_finished_stat(
                        op, ftp_error(451, "BACKEND_ERROR", "GridFTP-Error: the listing broke off."),
                        nullptr, 0);
                    return;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
        tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, batch.data(), 0);
        return;
    }
    if (path == "/async" || path == "/fail-mid") {
        char *name = info->pathname;
        auto s = entry(name, 0100644, 65536);
        tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &s, 1);
        return;
    }
    tarvex_object_t *cause = tarvex_error_construct_error(nullptr, nullptr, 1, __FILE__, __func__,
                                                          __LINE__, "Backend-Detail: no item at %s",
                                                          path.c_str());
    tarvex_gridftp_server_finished_stat(
        op, ftp_error(550, "PATH_NOT_FOUND", "GridFTP-Path: not found.", cause), nullptr, 0);
}

void command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, void *)
{
    if (info->command != TARVEX_GFS_CMD_CKSM) {
        tarvex_gridftp_server_finished_command(op, ftp_error(500, "NOT_IMPLEMETED", nullptr), nullptr);
        return;
    }
    std::string path = info->pathname;
    if (path == "/stubborn") {
        std::this_thread::sleep_for(std::chrono::seconds(60));
        char sum[] = "beef";
        tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, sum);
        return;
    }
    char sum[] = "cafe";
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, sum);
}

// Marks a write after which the transfer fails (/fail-mid).
char fail_after_write;

// The end of a send: its one write done, the transfer finishes with the
// write's failure, else with /fail-mid's.
void written(tarvex_gfs_operation_t op, tarvex_result_t r, tarvex_byte_t *buf, tarvex_size_t,
             void *arg)
{
    delete[] buf;
    if (r == TARVEX_SUCCESS && arg == &fail_after_write)
        r = ftp_error(451, "BACKEND_ERROR", "GridFTP-Error: the backend went away.");
    tarvex_gridftp_server_finished_transfer(op, r);
}

// Sends `n` bytes of `c` in one write; `written` finishes the transfer.
void write_once(tarvex_gfs_operation_t op, tarvex_size_t n, char c, void *arg)
{
    auto *buf = new tarvex_byte_t[n];
    memset(buf, c, n);
    tarvex_result_t r = tarvex_gridftp_server_register_write(op, buf, n, 0, -1, written, arg);
    if (r != TARVEX_SUCCESS) {
        delete[] buf;
        tarvex_gridftp_server_finished_transfer(op, r);
    }
}

void send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *)
{
    std::string path = info->pathname;
    if (path == "/async") {
        std::thread([op] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
            write_once(op, 16384, 'a', nullptr);
        }).detach();
        return;
    }
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    write_once(op, 1 << 20, 'x', path == "/fail-mid" ? &fail_after_write : nullptr);
}

// "/link" is a link to "/home"; "/broken" cannot be resolved.
tarvex_result_t realpath(const char *in, char **out, void *)
{
    if (strcmp(in, "/broken") == 0)
        return ftp_error(550, "PATH_NOT_FOUND", "GridFTP-Path: dangling link.");
    *out = strdup(strcmp(in, "/link") == 0 ? "/home" : in);
    return TARVEX_SUCCESS;
}

const tarvex_gfs_storage_iface_t table = {TARVEX_GFS_DSI_DESCRIPTOR_SENDER |
                                              TARVEX_GFS_DSI_DESCRIPTOR_SERIAL_OPERATIONS |
                                              TARVEX_GFS_DSI_DESCRIPTOR_HAS_REALPATH,
                                          start,
                                          nullptr,
                                          nullptr,
                                          send,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          command,
                                          stat,
                                          nullptr,
                                          nullptr,
                                          realpath};

} // namespace

extern "C" {
tarvex_module_descriptor_t tarvex_gridftp_server_e2etest_module = {
    "tarvex_gridftp_server_e2etest", activate, deactivate, nullptr, nullptr, &version, nullptr};
}

namespace {

int activate()
{
    tarvex_module_activate(&tarvex_i_gfs_module);
    tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "e2etest",
                                  &tarvex_gridftp_server_e2etest_module,
                                  const_cast<tarvex_gfs_storage_iface_t *>(&table));
    return 0;
}

int deactivate()
{
    tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "e2etest");
    tarvex_module_deactivate(&tarvex_i_gfs_module);
    return 0;
}

} // namespace
