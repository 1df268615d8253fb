/* The link to a pacing store: a password written with %XX escapes, as a
 * URL needs for "@", ":" and "%", reaches the store decoded, and the
 * pacing states open at once share one connection. */
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "box_pacing_support.h"
#include "box_scratch.h"
#include "config.h"
#include "retry.h"

namespace {

using namespace tarvex_test;

TEST(BoxPacingStoreLink, EscapedPasswordAndOneSharedConnection)
{
    if (!have_program("redis-server"))
        GTEST_SKIP() << "redis-server is not installed (scripts/install-deps brings it)";
    tarvex_module_activate(&tarvex_i_common_module);
    {
        redis_server redis("p@ss:w%rd");
        box_scratch scratch(TARVEX_BOX_WARN);
        int rate = 16;
        std::string policy = R"({"pacing_store": ")" + redis.url(":p%40ss%3Aw%25rd@") + "\"}";
        ASSERT_EQ(tarvex_box_config_parse_json(policy.c_str(), &rate), TARVEX_SUCCESS);
        tarvex_box_retry_t one{}, two{};
        tarvex_i_box_retry_state_create("80", rate, &one);
        tarvex_i_box_retry_state_create("81", rate, &two);
        EXPECT_EQ(tarvex_box_pace(&one).source, tarvex_box_pacing_slot_t::store)
            << scratch.debug_text();
        EXPECT_EQ(tarvex_box_pace(&two).source, tarvex_box_pacing_slot_t::store);
        redis_reply clients = redis.command({"CLIENT", "LIST"});
        ASSERT_NE(clients, nullptr);
        std::string list(clients->str, clients->len);
        EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 2) << list; // ours and this one
        tarvex_i_box_retry_state_destroy(&two);
        tarvex_i_box_retry_state_destroy(&one);
        std::string ignored;
        tarvex_box_pacing_store_configure(nullptr, &ignored);
    }
    tarvex_module_deactivate(&tarvex_i_common_module);
}

} // namespace
