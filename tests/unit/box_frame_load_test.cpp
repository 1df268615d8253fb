/*
 * The plug-in as the server meets it: loaded by name through the extension
 * loader (never linked into this program), registered under "box", gone
 * again after deactivation.
 */
#include <gtest/gtest.h>

#include <iterator>

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

class BoxFrameLoad : public ::testing::Test {
protected:
    void SetUp() override { tarvex_extension_set_search_path(TARVEX_BOX_LIB_DIR); }
    void TearDown() override { tarvex_extension_set_search_path(nullptr); }
};

TEST_F(BoxFrameLoad, RegistersTheTableUnderBoxAndRemovesIt)
{
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_common_module), 0);
    ASSERT_EQ(tarvex_extension_activate(plugin), 0) << tarvex_extension_last_error();

    const tarvex_gfs_storage_iface_t *iface = registered_box();
    ASSERT_NE(iface, nullptr);
    EXPECT_EQ(iface->descriptor, 0x6b);
    const bool set[] = {
        iface->init_func != nullptr,    iface->destroy_func != nullptr,
        iface->list_func != nullptr,    iface->send_func != nullptr,
        iface->recv_func != nullptr,    iface->trev_func != nullptr,
        iface->active_func != nullptr,  iface->passive_func != nullptr,
        iface->data_destroy_func != nullptr, iface->command_func != nullptr,
        iface->stat_func != nullptr,    iface->set_cred_func != nullptr,
        iface->buffer_send_func != nullptr, iface->realpath_func != nullptr,
    };
    const bool expected[] = {true, true, false, true, true, false, false,
                             false, false, true, true, false, false, false};
    for (size_t i = 0; i < std::size(set); i++)
        EXPECT_EQ(set[i], expected[i]) << "slot " << i + 1;

    tarvex_module_descriptor_t *module =
        tarvex_extension_registry_module(&tarvex_i_gfs_dsi_registry, "box");
    ASSERT_NE(module, nullptr);
    EXPECT_STREQ(module->module_name, "tarvex_gridftp_server_box");
    ASSERT_NE(module->version, nullptr);
    EXPECT_EQ(module->version->major, 0);
    EXPECT_EQ(module->version->minor, 26);
    /* The plug-in keeps the REST client up while it is loaded. */
    EXPECT_GT(tarvex_module_activation_count(&tarvex_i_dsi_rest_module), 0);

    EXPECT_EQ(tarvex_extension_deactivate(plugin), 0);
    EXPECT_EQ(registered_box(), nullptr);
    EXPECT_EQ(tarvex_module_activation_count(&tarvex_i_dsi_rest_module), 0);
    tarvex_module_deactivate(&tarvex_i_common_module);
}

int rest_activations = 0;
int count_rest_activation() { return ++rest_activations, 0; }
int quiet_deactivation() { return 0; }
int refuse_activation() { return 1; }

/* A runtime that will not come up must not keep the plug-in from
 * registering, nor the REST client from being started. */
TEST_F(BoxFrameLoad, FailingRuntimeStillRegistersAndStartsTheRestClient)
{
    ASSERT_EQ(tarvex_module_activation_count(&tarvex_i_common_module), 0);
    tarvex_module_descriptor_t saved_common = tarvex_i_common_module;
    tarvex_module_descriptor_t saved_rest = tarvex_i_dsi_rest_module;
    tarvex_i_common_module.activation_func = refuse_activation;
    tarvex_i_dsi_rest_module.activation_func = count_rest_activation;
    tarvex_i_dsi_rest_module.deactivation_func = quiet_deactivation;

    int rc = tarvex_extension_activate(plugin);
    const tarvex_gfs_storage_iface_t *iface = registered_box();
    int descriptor = iface ? iface->descriptor : 0;
    int rest_count = tarvex_module_activation_count(&tarvex_i_dsi_rest_module);
    if (rc == 0)
        tarvex_extension_deactivate(plugin);
    while (tarvex_module_activation_count(&tarvex_i_dsi_rest_module) > 0)
        tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
    tarvex_i_common_module = saved_common;
    tarvex_i_dsi_rest_module = saved_rest;

    ASSERT_EQ(rc, 0) << tarvex_extension_last_error();
    EXPECT_NE(iface, nullptr);
    EXPECT_EQ(descriptor, 0x6b);
    EXPECT_EQ(rest_activations, 1);
    EXPECT_EQ(rest_count, 1);
    EXPECT_EQ(registered_box(), nullptr);
}

} // namespace
