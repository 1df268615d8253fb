/*
 * The plug-in module: what the server loads.  Activation registers the
 * storage-interface table under "box" and the policy's check under
 * "box:config"; deactivation takes both away.
 */
#include "command.h"
#include "common_module.h"
#include "config_check.h"
#include "destroy.h"
#include "dsi.h"
#include "recv.h"
#include "send.h"
#include "start.h"
#include "stat.h"
#include "tarvex_box_common.h"

static int tarvex_l_box_activate(void);
static int tarvex_l_box_deactivate(void);

/* Bits 0, 1, 3, 5 and 6: the plug-in moves the data itself, blocks,
 * wants ordered data, does recursive deletes itself and must never see
 * two calls of a session at once. */
static constexpr int tarvex_l_box_descriptor =
    TARVEX_GFS_DSI_DESCRIPTOR_SENDER | TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING |
    TARVEX_GFS_DSI_DESCRIPTOR_REQUIRES_ORDERED_DATA |
    TARVEX_GFS_DSI_DESCRIPTOR_RECURSIVE_DELETE |
    TARVEX_GFS_DSI_DESCRIPTOR_SERIAL_OPERATIONS;
static_assert(tarvex_l_box_descriptor == 0x6b, "descriptor bits changed");

static const tarvex_gfs_storage_iface_t tarvex_l_box_dsi_iface = {
    tarvex_l_box_descriptor,
    tarvex_i_box_start,   /* init_func */
    tarvex_i_box_destroy, /* destroy_func */
    nullptr,              /* list_func */
    tarvex_i_box_send,    /* send_func */
    tarvex_i_box_recv,    /* recv_func */
    nullptr,              /* trev_func */
    nullptr,              /* active_func */
    nullptr,              /* passive_func */
    nullptr,              /* data_destroy_func */
    tarvex_i_box_command, /* command_func */
    tarvex_i_box_stat,    /* stat_func */
    nullptr,              /* set_cred_func */
    nullptr,              /* buffer_send_func */
    nullptr,              /* realpath_func */
};

static const tarvex_version_t tarvex_l_box_version = {0, 26, 0, 0};

extern "C" {

TARVEX_API tarvex_module_descriptor_t tarvex_gridftp_server_box_module = {
    "tarvex_gridftp_server_box",
    tarvex_l_box_activate,
    tarvex_l_box_deactivate,
    nullptr,
    nullptr,
    &tarvex_l_box_version,
    nullptr,
};

} // extern "C"

/* Nothing here can make loading fail: without the runtime the plug-in
 * still registers and simply logs nothing. */
static int tarvex_l_box_activate(void)
{
    (void)tarvex_module_activate(&tarvex_i_box_common_module);
    /* The registry only reads the table; it never writes through it. */
    (void)tarvex_extension_registry_add(
        &tarvex_i_gfs_dsi_registry, "box", &tarvex_gridftp_server_box_module,
        const_cast<tarvex_gfs_storage_iface_t *>(&tarvex_l_box_dsi_iface));
    /* The server checks the policy before any login with it. */
    (void)tarvex_extension_registry_add(
        &tarvex_i_gfs_config_check_registry, "box:config", &tarvex_gridftp_server_box_module,
        const_cast<tarvex_gfs_config_checker_t *>(&tarvex_i_box_config_checker));
    return 0;
}

static int tarvex_l_box_deactivate(void)
{
    (void)tarvex_extension_registry_remove(&tarvex_i_gfs_config_check_registry, "box:config");
    (void)tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "box");
    (void)tarvex_module_deactivate(&tarvex_i_box_common_module);
    return 0;
}
