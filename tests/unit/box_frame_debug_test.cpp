/*
 * The plug-in's debug stream: exact line prefixes, the 4096-byte format
 * buffer, and silence once the module is gone (an unset variable opens no
 * stream: common_debug_test's grammar).
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "box_scratch.h"
#include "common_module.h"
#include "config.h"

namespace {

using tarvex_test::box_scratch;

/* A traced operation writes an enter and an exit line with the exact
 * prefix; the printers format their arguments (the stamped one after a
 * time). */
TEST(BoxFrameDebug, TracedOperationsAndPrinters)
{
    box_scratch scratch(TARVEX_BOX_ALL);
    int rate = 16;
    ASSERT_EQ(tarvex_box_config_parse_json("{}", &rate), TARVEX_SUCCESS);
    tarvex_i_TARVEX_BOX_debug_printf("%s=%d\n", "plain", 5);
    tarvex_i_TARVEX_BOX_debug_time_printf("%s=%d\n", "stamped", 7);
    const std::string prefix =
        "box: TRACE: " + std::to_string(getpid()) + ": tarvex_box_config_parse_json: ";
    const std::string first =
        prefix + "enter\n" + prefix + "exit: result=TARVEX_SUCCESS\n" + "plain=5\n";
    std::string text = scratch.debug_text();
    EXPECT_EQ(text.substr(0, first.size()), first) << text;
    EXPECT_NE(text.find("stamped=7\n", first.size()), std::string::npos) << text;
}

/* With thread ids the format goes through a fixed buffer: a longer one is
 * cut to 4095 characters. */
TEST(BoxFrameDebug, LongFormatsAreCutToTheBuffer)
{
    box_scratch scratch(TARVEX_BOX_ALL);
    tarvex_i_TARVEX_BOX_debug_handle.thread_ids = true;
    const std::string format(5000, 'a');
    // The format itself must be long, so it cannot be a literal.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    tarvex_i_TARVEX_BOX_debug_printf(format.c_str(), 0);
#pragma GCC diagnostic pop
    std::string prefix = std::to_string((unsigned long)tarvex_thread_self()) + "::";
    EXPECT_EQ(scratch.debug_text(), prefix + format.substr(0, 4095 - prefix.size()));
}

TEST(BoxFrameDebug, DeactivationSilencesThePrinters)
{
    box_scratch scratch;
    setenv("TARVEX_BOX_DEBUG", ("ALL," + scratch.log_path()).c_str(), 1);
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
    unsetenv("TARVEX_BOX_DEBUG");
    TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "before\n");
    ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_box_common_module), 0);

    EXPECT_EQ(tarvex_i_TARVEX_BOX_debug_handle.file, nullptr);
    /* No stream: even a direct call of the printers is harmless. */
    tarvex_box_debug_line(TARVEX_BOX_TRACE, "f", "after\n");
    tarvex_i_TARVEX_BOX_debug_printf("after\n");
    tarvex_i_TARVEX_BOX_debug_fwrite("after", 1, 5);
    std::string text = scratch.debug_text();
    EXPECT_NE(text.find("before\n"), std::string::npos);
    EXPECT_EQ(text.find("after"), std::string::npos);
}

} // namespace
