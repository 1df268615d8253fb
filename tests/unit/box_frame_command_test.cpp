/*
 * Operations that arrive with a later release answer exactly once, with a
 * reply that names them; unserved commands get the fixed refusal.
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>

#include "driver.h"
#include "tarvex_box_common.h"

namespace {

using tarvex_test::event_kind;

class BoxFrameCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        tarvex_module_activate(&tarvex_i_common_module);
        box_.access_token = strdup("token");
        box_.user_id = strdup("123");
        box_.access_token_exp = time(nullptr) + 3600;
        table_.command_func = tarvex_i_box_command;
        table_.send_func = tarvex_i_box_send;
        table_.recv_func = tarvex_i_box_recv;
    }
    void TearDown() override
    {
        free(box_.access_token);
        free(box_.user_id);
        tarvex_module_deactivate(&tarvex_i_common_module);
    }
    tarvex_result_t run(tarvex_gfs_command_type_t command)
    {
        tarvex_gfs_command_info_t info{};
        info.command = command;
        info.pathname = const_cast<char *>("/a");
        return driver_.command(&table_, &box_, info);
    }
    tarvex_box_session_t box_{};
    tarvex_gfs_storage_iface_t table_{};
    tarvex_test::driver driver_;
};

TEST_F(BoxFrameCommand, UnservedCommandsGetTheFixedRefusal)
{
    for (int command : {0, (int)TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT, (int)TARVEX_GFS_CMD_RNFR,
                        (int)TARVEX_GFS_CMD_SITE_CHMOD, (int)TARVEX_GFS_CMD_SITE_UTIME,
                        (int)TARVEX_GFS_MIN_CUSTOM_CMD + 3}) {
        driver_.clear_events();
        run((tarvex_gfs_command_type_t)command);
        auto answers = driver_.events(event_kind::command);
        ASSERT_EQ(answers.size(), 1u) << command;
        EXPECT_EQ(answers[0].reply, "500 NOT_IMPLEMETED\r\n") << command;
    }
}

TEST_F(BoxFrameCommand, LaterCommandsAndTransfersSayNotImplementedYet)
{
    for (auto command : {TARVEX_GFS_CMD_MKD, TARVEX_GFS_CMD_DELE, TARVEX_GFS_CMD_CKSM}) {
        driver_.clear_events();
        run(command);
        auto answers = driver_.events(event_kind::command);
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(answers[0].reply.rfind("502", 0), 0u) << answers[0].reply;
    }
    driver_.clear_events();
    driver_.send(&table_, &box_, "/a");
    driver_.recv(&table_, &box_, "/a", 0, true);
    auto answers = driver_.events(event_kind::finished_transfer);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_NE(answers[0].reply.find("RETR"), std::string::npos) << answers[0].reply;
    EXPECT_NE(answers[1].reply.find("STOR"), std::string::npos) << answers[1].reply;
}

} // namespace
