// The library's module descriptor.  Activating it brings up the common
// runtime (error table, extensions) that every call of this library uses.
#include "tarvex_gridftp_server.h"

namespace {

int gfs_activate()
{
    return tarvex_module_activate(&tarvex_i_common_module);
}

int gfs_deactivate()
{
    return tarvex_module_deactivate(&tarvex_i_common_module);
}

const tarvex_version_t gfs_version = {0, 26, 0, 0};

} // namespace

tarvex_module_descriptor_t tarvex_i_gfs_module = {
    "tarvex_gridftp_server",
    gfs_activate,
    gfs_deactivate,
    nullptr,
    nullptr,
    &gfs_version,
    nullptr,
};
