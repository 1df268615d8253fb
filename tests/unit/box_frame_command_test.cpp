/*
 * Unserved commands get exactly the fixed refusal; the ones a later release
 * serves answer 502; every command is answered once.
 */
#include <gtest/gtest.h>

#include <string.h>

#include "driver.h"
#include "tarvex_box_common.h"

TEST(BoxFrameCommand, EachCommandIsAnsweredOnce)
{
    tarvex_module_activate(&tarvex_i_common_module);
    tarvex_box_session_t box{};
    box.access_token = strdup("token");
    box.access_token_exp = time(nullptr) + 3600;
    tarvex_gfs_storage_iface_t table{};
    table.command_func = tarvex_i_box_command;
    tarvex_test::driver driver;
    const struct { int command; const char *reply; } cases[] = {
        {0, "500 NOT_IMPLEMETED\r\n"},         {TARVEX_GFS_CMD_RNFR, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_MIN_CUSTOM_CMD + 3, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_CMD_MKD, "502"},           {TARVEX_GFS_CMD_CKSM, "502"},
    };
    for (const auto &c : cases) {
        driver.clear_events();
        tarvex_gfs_command_info_t info{};
        info.command = (tarvex_gfs_command_type_t)c.command;
        info.pathname = const_cast<char *>("/a");
        driver.command(&table, &box, info);
        auto answers = driver.events(tarvex_test::event_kind::command);
        ASSERT_EQ(answers.size(), 1u) << c.command;
        const std::string &reply = answers[0].reply; /* the refusal is the whole reply */
        EXPECT_EQ(strlen(c.reply) > 3 ? reply : reply.substr(0, 3), c.reply) << reply;
    }
    free(box.access_token);
    tarvex_module_deactivate(&tarvex_i_common_module);
}
