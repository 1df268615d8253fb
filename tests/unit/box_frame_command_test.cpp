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

/* Unserved commands get exactly the refusal; the ones a later release
 * serves say so with 502. */
TEST_F(BoxFrameCommand, EachCommandIsAnsweredOnce)
{
    const struct { int command; const char *reply; } cases[] = {
        {0, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_CMD_RNFR, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_CMD_SITE_CHMOD, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_MIN_CUSTOM_CMD + 3, "500 NOT_IMPLEMETED\r\n"},
        {TARVEX_GFS_CMD_MKD, "502"},
        {TARVEX_GFS_CMD_SITE_RDEL, "502"},
        {TARVEX_GFS_CMD_CKSM, "502"},
    };
    for (const auto &c : cases) {
        driver_.clear_events();
        run((tarvex_gfs_command_type_t)c.command);
        auto answers = driver_.events(event_kind::command);
        ASSERT_EQ(answers.size(), 1u) << c.command;
        /* The refusal is the whole reply; the others name the command. */
        std::string reply = answers[0].reply;
        EXPECT_EQ(strlen(c.reply) > 3 ? reply : reply.substr(0, 3), c.reply) << reply;
    }
}

TEST_F(BoxFrameCommand, TransfersSayNotImplementedYet)
{
    driver_.send(&table_, &box_, "/a");
    driver_.recv(&table_, &box_, "/a", 0, true);
    auto answers = driver_.events(event_kind::finished_transfer);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_NE(answers[0].reply.find("RETR"), std::string::npos) << answers[0].reply;
    EXPECT_NE(answers[1].reply.find("STOR"), std::string::npos) << answers[1].reply;
}

} // namespace
