// A minimal storage plug-in, loaded by name in the registry tests.
#include "tarvex_gridftp_server.h"

extern "C" tarvex_module_descriptor_t tarvex_gridftp_server_gfsfixture_module;

namespace {

const tarvex_gfs_storage_iface_t fixture_iface = {
    TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr};

int fixture_activate()
{
    tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "gfsfixture",
                                  &tarvex_gridftp_server_gfsfixture_module,
                                  const_cast<tarvex_gfs_storage_iface_t *>(&fixture_iface));
    return 0;
}

int fixture_deactivate()
{
    tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "gfsfixture");
    return 0;
}

const tarvex_version_t fixture_version = {0, 1, 0, 0};

} // namespace

tarvex_module_descriptor_t tarvex_gridftp_server_gfsfixture_module = {
    "tarvex_gridftp_server_gfsfixture",
    fixture_activate,
    fixture_deactivate,
    nullptr,
    nullptr,
    &fixture_version,
    nullptr,
};
