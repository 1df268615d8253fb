// The debug variable grammar and the debug line format.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "full_match.h"
#include "tarvex_common.h"

namespace {

const char *kNames = "TRACE DEBUG INFO WARN ERROR";

enum class stream { none, standard_error, file };

std::string temp_path(const std::string &name)
{
    return testing::TempDir() + "tarvex-debug-" + std::to_string(getpid()) + "-" + name;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
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

TEST(CommonDebug, FileModesAndLineFormat)
{
    std::string path = temp_path("lines.log");
    std::string pid = std::to_string(getpid());
    {
        std::ofstream(path) << "old line\n";
    }
    // Appending keeps what was there; '#' starts the file afresh.
    tarvex_debug_handle_t handle = init_with(("1," + path).c_str());
    tarvex_debug_printf(&handle, 1, "box", "TRACE", "kept %d", 1);
    tarvex_debug_printf(&handle, 2, "box", "DEBUG", "level off\n");
    tarvex_debug_close(&handle);
    EXPECT_EQ(slurp(path), "old line\nbox: TRACE: " + pid + ": kept 1\n");

    handle = init_with(("3,#" + path + ",DEBUG,1").c_str());
    tarvex_debug_printf(&handle, 1, "box", "TRACE", "plain\n");
    tarvex_debug_printf(&handle, 2, "box", "DEBUG", "stamped\n");
    tarvex_debug_close(&handle);
    std::string tid = std::to_string(static_cast<unsigned long>(tarvex_thread_self()));
    std::string text = slurp(path);
    // The second line stamped: "<tid>:<seconds>.<nine digits>::box: DEBUG: ..."
    EXPECT_TRUE(full_match(text, tid + "::box: TRACE: " + pid + ": plain\n" + tid +
                                     ":[0-9]+\\.[0-9]{9}::box: DEBUG: " + pid + ": stamped\n"))
        << text;

    // A closed handle writes nothing.
    tarvex_debug_printf(&handle, 1, "box", "TRACE", "after close\n");
    EXPECT_EQ(slurp(path), text);
    unlink(path.c_str());
}
