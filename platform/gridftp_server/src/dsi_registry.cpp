// The storage-interface registry and loading of plug-ins by name.
//
// A plug-in named N is the extension "tarvex_gridftp_server_N"; activating
// it makes it register its table under N here.
#include <string>
#include <string_view>

#include "c_edge.h"
#include "tarvex_gridftp_server.h"

tarvex_extension_registry_t tarvex_i_gfs_dsi_registry = {nullptr};
tarvex_extension_registry_t tarvex_i_gfs_config_check_registry = {nullptr};

namespace {

const char extension_prefix[] = "tarvex_gridftp_server_";

// A name becomes part of a file name: refuse anything that could leave the
// search directories or is not a plain identifier.
bool plugin_name_valid(const char *name)
{
    if (name == nullptr || *name == '\0')
        return false;
    for (std::string_view s(name); char c : s) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                  (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

std::string extension_name(const char *name)
{
    return std::string(extension_prefix) + name;
}

const tarvex_gfs_storage_iface_t *load(const char *name)
{
    if (!plugin_name_valid(name))
        return nullptr;
    // Made first: nothing below may throw once the module is activated.
    std::string ext = extension_name(name);
    // The plug-in uses this library's errors and the runtime: keep both up
    // for as long as the plug-in is loaded.
    if (tarvex_module_activate(&tarvex_i_gfs_module) != 0)
        return nullptr;
    if (tarvex_extension_activate(ext.c_str()) != 0) {
        tarvex_module_deactivate(&tarvex_i_gfs_module);
        return nullptr;
    }
    auto *iface = static_cast<const tarvex_gfs_storage_iface_t *>(
        tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, name));
    if (iface == nullptr) {
        // Loaded, but it registered nothing under its own name: unusable.
        tarvex_extension_deactivate(ext.c_str());
        tarvex_module_deactivate(&tarvex_i_gfs_module);
        return nullptr;
    }
    return iface;
}

void unload(const char *name)
{
    if (!plugin_name_valid(name))
        return;
    std::string ext = extension_name(name);
    // Only a successful deactivation balances a load; unloading a name that
    // was never loaded must not take the runtime down under others.
    if (tarvex_extension_deactivate(ext.c_str()) == 0)
        tarvex_module_deactivate(&tarvex_i_gfs_module);
}

} // namespace

extern "C" const struct tarvex_gfs_storage_iface_s *tarvex_gfs_dsi_load(const char *name)
{
    return tarvex_gfs_internal::guarded_value<const tarvex_gfs_storage_iface_t *>(
        nullptr, [&] { return load(name); });
}

extern "C" void tarvex_gfs_dsi_unload(const char *name)
{
    tarvex_gfs_internal::guarded([&] { unload(name); });
}

extern "C" const tarvex_gfs_config_checker_t *tarvex_gfs_config_checker_find(const char *dsi,
                                                                             const char *key)
{
    return tarvex_gfs_internal::guarded_value<const tarvex_gfs_config_checker_t *>(
        nullptr, [&]() -> const tarvex_gfs_config_checker_t * {
            if (dsi == nullptr || key == nullptr)
                return nullptr;
            std::string symbol = std::string(dsi) + ":" + key;
            return static_cast<const tarvex_gfs_config_checker_t *>(
                tarvex_extension_lookup(&tarvex_i_gfs_config_check_registry, symbol.c_str()));
        });
}
