// Module, storage-interface table, session start and end.
#include <fcntl.h>
#include <jansson.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "posix.h"

namespace {

int activate();
int deactivate();

const tarvex_version_t version = {0, 26, 0, 0};

const tarvex_gfs_storage_iface_t table = {
    TARVEX_GFS_DSI_DESCRIPTOR_SENDER | TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING |
        TARVEX_GFS_DSI_DESCRIPTOR_REQUIRES_ORDERED_DATA |
        TARVEX_GFS_DSI_DESCRIPTOR_RECURSIVE_DELETE,
    tarvex_posix::start,
    tarvex_posix::destroy,
    nullptr, // list_func
    tarvex_posix::send,
    tarvex_posix::recv,
    nullptr, // trev_func
    nullptr, // active_func
    nullptr, // passive_func
    nullptr, // data_destroy_func
    tarvex_posix::command,
    tarvex_posix::stat,
    nullptr, // set_cred_func
    nullptr, // buffer_send_func
    nullptr, // realpath_func
};

} // namespace

extern "C" {
// The descriptor the server looks up by name when it loads "posix".
TARVEX_API tarvex_module_descriptor_t tarvex_gridftp_server_posix_module = {
    "tarvex_gridftp_server_posix", activate, deactivate, nullptr, nullptr, &version, nullptr};
}

namespace tarvex_posix {
tarvex_module_descriptor_t *module = &tarvex_gridftp_server_posix_module;
}

namespace {

int activate()
{
    int rc = tarvex_module_activate(&tarvex_i_gfs_module);
    if (rc != 0)
        return rc;
    tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "posix",
                                  &tarvex_gridftp_server_posix_module,
                                  const_cast<tarvex_gfs_storage_iface_t *>(&table));
    return 0;
}

int deactivate()
{
    tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "posix");
    tarvex_module_deactivate(&tarvex_i_gfs_module);
    return 0;
}

// The root folder: "root" of the JSON configuration data "config", else the
// environment variable TARVEX_POSIX_ROOT.
tarvex_result_t find_root(tarvex_gfs_operation_t op, std::string &root)
{
    char *text = nullptr;
    tarvex_result_t r = tarvex_gridftp_server_get_config_data(op, "config", &text);
    if (r != TARVEX_SUCCESS)
        return r;
    if (text != nullptr) {
        json_error_t jerr;
        json_t *doc = json_loads(text, 0, &jerr);
        free(text);
        const char *value = nullptr;
        if (doc == nullptr || json_unpack(doc, "{s:s}", "root", &value) != 0 || *value == '\0') {
            json_decref(doc);
            return tarvex_posix::make_error(500, "INTERNAL_ERROR",
                                            "GridFTP-Error: the configuration needs {\"root\": "
                                            "\"/folder\"}.");
        }
        root = value;
        json_decref(doc);
        return TARVEX_SUCCESS;
    }
    const char *env = getenv("TARVEX_POSIX_ROOT");
    if (env == nullptr || *env == '\0')
        return tarvex_posix::make_error(500, "INTERNAL_ERROR",
                                        "GridFTP-Error: no storage root is configured.");
    root = env;
    return TARVEX_SUCCESS;
}

} // namespace

namespace tarvex_posix {

namespace {

void start_session(tarvex_gfs_operation_t op)
{
    std::unique_ptr<Session> s(new (std::nothrow) Session);
    if (s == nullptr) {
        tarvex_gridftp_server_finished_session_start(op, TARVEX_GFS_MALLOC_ERROR(module, ENOMEM),
                                                     nullptr, nullptr, nullptr);
        return;
    }
    tarvex_result_t r = find_root(op, s->root);
    if (r == TARVEX_SUCCESS) {
        s->root_fd = open(s->root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (s->root_fd < 0)
            r = make_error(500, "INTERNAL_ERROR",
                           "GridFTP-Error: the storage root " + s->root + " cannot be opened: " +
                               strerror(errno));
    }
    if (r != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_session_start(op, r, nullptr, nullptr, nullptr);
        return;
    }
    tarvex_gridftp_server_set_checksum_support(op, "MD5:1;SHA1:2;");
    char home[] = "/";
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, s.release(), nullptr, home);
}

} // namespace

void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *)
{
    guarded_entry([&] { start_session(op); }, [&](tarvex_result_t r) {
        tarvex_gridftp_server_finished_session_start(op, r, nullptr, nullptr, nullptr);
    });
}

void destroy(void *arg)
{
    auto *s = static_cast<Session *>(arg);
    if (s == nullptr)
        return;
    if (s->root_fd >= 0)
        close(s->root_fd);
    delete s;
}

} // namespace tarvex_posix
