// The debug variable grammar.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "tarvex_common.h"

namespace {

const char *kNames = "TRACE DEBUG INFO WARN ERROR";

enum class stream { none, standard_error, file };

std::string temp_path(const std::string &name)
{
    return testing::TempDir() + "tarvex-debug-" + std::to_string(getpid()) + "-" + name;
}

// Sets the variable (nullptr: unset) and reads it into a handle.
tarvex_debug_handle_t init_with(const char *value)
{
    if (value == nullptr)
        unsetenv("TARVEX_TEST_DEBUG");
    else
        setenv("TARVEX_TEST_DEBUG", value, 1);
    tarvex_debug_handle_t handle;
    EXPECT_EQ(tarvex_debug_init("TARVEX_TEST_DEBUG", kNames, &handle), 0);
    return handle;
}

} // namespace

TEST(CommonDebug, Grammar)
{
    std::string log = temp_path("grammar-%p.log");
    std::string expanded = temp_path("grammar-" + std::to_string(getpid()) + ".log");
    std::string with_file = "3," + log + ",TRACE|debug,on";
    struct {
        const char *value;
        unsigned levels, timestamps;
        stream where;
        bool thread_ids;
    } cases[] = {
        {nullptr, 0, 0, stream::none, false},
        {"0,/tmp/never-opened.log", 0, 0, stream::none, false},
        {"ALL", 31, 0, stream::standard_error, false},
        {"trace|Error", 17, 0, stream::standard_error, false},
        {" WARN | bogus ", 8, 0, stream::standard_error, false},
        {"bogus", 0, 0, stream::none, false},
        {"12", 12, 0, stream::standard_error, false},
        {"31,-,ERROR,yes", 31, 16, stream::standard_error, true},
        {"31,,4,0", 31, 4, stream::standard_error, false},
        {"1,/nonexistent-dir/x.log", 1, 0, stream::standard_error, false},
        {with_file.c_str(), 3, 3, stream::file, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "(unset)" : c.value);
        tarvex_debug_handle_t handle = init_with(c.value);
        EXPECT_EQ(handle.levels, c.levels);
        EXPECT_EQ(handle.timestamp_levels, c.timestamps);
        EXPECT_EQ(handle.thread_ids, c.thread_ids);
        EXPECT_EQ(handle.using_file, c.where == stream::file);
        if (c.where == stream::none) {
            EXPECT_EQ(handle.file, nullptr);
        } else if (c.where == stream::standard_error) {
            EXPECT_EQ(handle.file, stderr);
        } else {
            EXPECT_NE(access(expanded.c_str(), F_OK), -1) << "%p not replaced";
        }
        tarvex_debug_close(&handle);
        EXPECT_EQ(handle.file, nullptr);
    }
    unlink(expanded.c_str());
    EXPECT_NE(tarvex_debug_init(nullptr, kNames, nullptr), 0);
    EXPECT_EQ(tarvex_debug_parse_levels("INFO|ALL", "A B"), 3u);
}
