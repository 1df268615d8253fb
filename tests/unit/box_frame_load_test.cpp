/*
 * The plug-in as the server meets it: loaded by name through the extension
 * loader (never linked into this program), registered under "box" with the
 * check of its policy, gone again after deactivation.
 */
#include <gtest/gtest.h>

#include <string>

#include "tarvex_common.h"
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

/* The table under "box", and the check the server runs on the policy file
 * before any login: the session's own verdict, with the place of the fault.
 * Both go with deactivation. */
TEST(BoxFrameLoad, RegistersTheTableAndTheCheckOfItsPolicy)
{
    tarvex_extension_set_search_path(TARVEX_BOX_LIB_DIR);
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_common_module), 0);
    ASSERT_EQ(tarvex_extension_activate(plugin), 0) << tarvex_extension_last_error();
    expect_box_table(registered_box());
    const tarvex_gfs_config_checker_t *checker = tarvex_gfs_config_checker_find("box", "config");
    ASSERT_NE(checker, nullptr);
    EXPECT_EQ(tarvex_gfs_config_checker_find("box", "creds"), nullptr);
    EXPECT_EQ(tarvex_gfs_config_checker_find("posix", "config"), nullptr);
    const struct {
        const char *policy;
        int line, column;
        const char *key, *message;
    } cases[] = {
        {"{\"user_api_rate_limit\": 8, \"pacing_store\": null}", 0, 0, "", ""},
        {"{\n \"user_api_rate_limit\": 16,\n}\n", 3, 1, "",
         "Error loading collection storage policy: string or '}' expected near '}'"},
        {"{\"other\": 1,\n \"user_api_rate_limit\" : \"16\"}", 2, 0, "user_api_rate_limit",
         "Error unpacking collection storage policy: Expected integer, got string"},
        {"{\"box_api_base\": \"http://box.example.com\"}", 1, 0, "box_api_base",
         "Box base URL http://box.example.com refused: the credential goes only over https, "
         "or plain http to a loopback address"},
        {"{\"a\": {\"pacing_store\": 1},\n\n \"pacing_store\": 5}", 3, 0, "pacing_store",
         "Bad \"pacing_store\" in collection storage policy: it must be a string such as "
         "\"redis://127.0.0.1:6379/0\""},
        {"[]", 0, 0, "", "Error unpacking collection storage policy: Expected object, got array"},
    };
    for (const auto &c : cases) {
        tarvex_gfs_config_place_t place{};
        tarvex_result_t result = checker->check(c.policy, &place);
        const tarvex_object_t *error = tarvex_error_peek(result);
        std::string message = error != nullptr ? tarvex_error_get_message(error) : "";
        tarvex_error_discard(result);
        EXPECT_EQ(message, c.message) << c.policy;
        EXPECT_EQ(place.line, c.line) << c.policy;
        EXPECT_EQ(place.column, c.column) << c.policy;
        EXPECT_STREQ(place.key, c.key) << c.policy;
    }
    EXPECT_EQ(tarvex_extension_deactivate(plugin), 0);
    EXPECT_EQ(tarvex_gfs_config_checker_find("box", "config"), nullptr);
    EXPECT_EQ(registered_box(), nullptr);
    tarvex_module_deactivate(&tarvex_i_common_module);
}

} // namespace
