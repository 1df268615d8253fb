/*
 * The plug-in as the server meets it: loaded by name through the extension
 * loader (never linked into this program), registered under "box", gone
 * again after deactivation.
 */
#include <gtest/gtest.h>

#include "tarvex_common.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_gridftp_server.h"

namespace {

const char *plugin = "tarvex_gridftp_server_box";

const tarvex_gfs_storage_iface_t *registered_box()
{
    return static_cast<const tarvex_gfs_storage_iface_t *>(
        tarvex_extension_lookup(&tarvex_i_gfs_dsi_registry, "box"));
}

/* init, destroy, send, recv, command and stat are set; no other slot. */
void expect_box_table(const tarvex_gfs_storage_iface_t *t)
{
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->descriptor, 0x6b);
    EXPECT_TRUE(t->init_func && t->destroy_func && t->send_func && t->recv_func &&
                t->command_func && t->stat_func);
    EXPECT_FALSE(t->list_func || t->trev_func || t->active_func || t->passive_func ||
                 t->data_destroy_func || t->set_cred_func || t->buffer_send_func ||
                 t->realpath_func);
}

TEST(BoxFrameLoad, RegistersTheTableUnderBoxAndRemovesIt)
{
    tarvex_extension_set_search_path(TARVEX_BOX_LIB_DIR);
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_common_module), 0);
    ASSERT_EQ(tarvex_extension_activate(plugin), 0) << tarvex_extension_last_error();
    expect_box_table(registered_box());
    EXPECT_EQ(tarvex_extension_deactivate(plugin), 0);
    EXPECT_EQ(registered_box(), nullptr);
    tarvex_module_deactivate(&tarvex_i_common_module);
}

int rest_activations = 0;
int count_rest_activation() { return ++rest_activations, 0; }
int succeed() { return 0; }
int refuse() { return 1; }

/* A runtime that will not come up must not keep the plug-in from
 * registering, nor the REST client from being started. */
TEST(BoxFrameLoad, FailingRuntimeStillRegistersTheTable)
{
    tarvex_extension_set_search_path(TARVEX_BOX_LIB_DIR);
    ASSERT_EQ(tarvex_module_activation_count(&tarvex_i_common_module), 0);
    tarvex_module_descriptor_t saved_common = tarvex_i_common_module;
    tarvex_module_descriptor_t saved_rest = tarvex_i_dsi_rest_module;
    tarvex_i_common_module.activation_func = refuse;
    tarvex_i_dsi_rest_module.activation_func = count_rest_activation;
    tarvex_i_dsi_rest_module.deactivation_func = succeed;
    int rc = tarvex_extension_activate(plugin);
    if (rc == 0) {
        expect_box_table(registered_box());
        tarvex_extension_deactivate(plugin);
    }
    while (tarvex_module_activation_count(&tarvex_i_dsi_rest_module) > 0)
        tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
    tarvex_i_common_module = saved_common;
    tarvex_i_dsi_rest_module = saved_rest;

    ASSERT_EQ(rc, 0) << tarvex_extension_last_error();
    EXPECT_EQ(rest_activations, 1);
    EXPECT_EQ(registered_box(), nullptr);
}

} // namespace
