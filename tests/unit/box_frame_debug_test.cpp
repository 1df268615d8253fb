/*
 * The plug-in's debug stream: exact line prefixes, the 4096-byte format
 * buffer, and silence when the variable is unset or the module is gone.
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>

#include "tarvex_box_common.h"

namespace {

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/* A temporary file the handle writes to, with every level on. */
class BoxFrameDebug : public ::testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/box-frame-debug-XXXXXX";
        int fd = mkstemp(name);
        ASSERT_NE(fd, -1);
        close(fd);
        path_ = name;
        saved_ = tarvex_i_TARVEX_BOX_debug_handle;
    }
    void TearDown() override
    {
        if (tarvex_i_TARVEX_BOX_debug_handle.file != nullptr &&
            tarvex_i_TARVEX_BOX_debug_handle.file != saved_.file)
            fclose(tarvex_i_TARVEX_BOX_debug_handle.file);
        tarvex_i_TARVEX_BOX_debug_handle = saved_;
        unlink(path_.c_str());
    }
    void open_all(unsigned timestamps = 0, bool thread_ids = false)
    {
        tarvex_debug_handle_t &h = tarvex_i_TARVEX_BOX_debug_handle;
        h.levels = TARVEX_BOX_ALL;
        h.timestamp_levels = timestamps;
        h.thread_ids = thread_ids;
        h.using_file = false;
        h.file = fopen(path_.c_str(), "w");
        ASSERT_NE(h.file, nullptr);
    }
    std::string written()
    {
        fflush(tarvex_i_TARVEX_BOX_debug_handle.file);
        return read_file(path_);
    }
    std::string path_;
    tarvex_debug_handle_t saved_{};
};

TEST_F(BoxFrameDebug, TracedOperationWritesEnterAndExitLines)
{
    open_all();
    int rate = 16;
    ASSERT_EQ(tarvex_box_config_parse_json("{}", &rate), TARVEX_SUCCESS);
    std::string pid = std::to_string(getpid());
    EXPECT_EQ(written(),
              "box: TRACE: " + pid + ": tarvex_box_config_parse_json: enter\n"
              "box: TRACE: " + pid + ": tarvex_box_config_parse_json: exit: result=TARVEX_SUCCESS\n");
}

TEST_F(BoxFrameDebug, FailedExitIsAnErrorLineAndLevelsFilter)
{
    open_all();
    int rate = 16;
    tarvex_result_t result = tarvex_box_config_parse_json("[", &rate);
    ASSERT_NE(result, TARVEX_SUCCESS);
    std::string text = written();
    std::string pid = std::to_string(getpid());
    char code[32];
    snprintf(code, sizeof code, "%#x", (unsigned)result);
    std::string expected_start = "box: ERROR: " + pid +
                                 ": tarvex_box_config_parse_json: exit: result=" + code +
                                 " message=";
    EXPECT_NE(text.find(expected_start), std::string::npos) << text;
    EXPECT_NE(text.find("Error loading collection storage policy:"), std::string::npos);
    /* The five-wide level field pads the shorter names. */
    tarvex_box_debug_line(TARVEX_BOX_INFO, "f", "x\n");
    EXPECT_NE(written().find("box:  INFO: " + pid + ": f: x\n"), std::string::npos);

    tarvex_i_TARVEX_BOX_debug_handle.levels = TARVEX_BOX_ERROR;
    size_t before = written().size();
    TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "hidden\n");
    tarvex_box_debug_line(TARVEX_BOX_DEBUG, "f", "hidden\n");
    EXPECT_EQ(written().size(), before);
}

/* Each print with a thread id or a time stamp goes through the fixed
 * buffer: a longer format is cut to 4095 characters. */
TEST_F(BoxFrameDebug, LongFormatsAreCutToTheBuffer)
{
    std::string format(5000, 'a');
    open_all(0, true);
    tarvex_i_TARVEX_BOX_debug_printf("%s", "");
    std::string prefix = written();
    ASSERT_EQ(prefix, std::to_string((unsigned long)tarvex_thread_self()) + "::");
    tarvex_i_TARVEX_BOX_debug_printf(format.c_str(), 0);
    EXPECT_EQ(written().size(), prefix.size() + 4095);

    TearDown();
    SetUp();
    open_all(TARVEX_BOX_ALL, false);
    tarvex_i_TARVEX_BOX_debug_time_printf(format.c_str(), 0);
    std::string stamped = written();
    EXPECT_EQ(stamped.size(), 4095u);
    /* seconds "." nine digits whose last three are zero "::" */
    size_t dot = stamped.find('.');
    ASSERT_NE(dot, std::string::npos);
    EXPECT_EQ(stamped.substr(dot + 7, 5), "000::");
    for (size_t i = 0; i < dot; i++)
        EXPECT_TRUE(isdigit((unsigned char)stamped[i]));
}

TEST_F(BoxFrameDebug, ThreadIdsPrefixBothHalvesOfALine)
{
    open_all(0, true);
    tarvex_box_debug_line(TARVEX_BOX_WARN, "f", "text %d\n", 7);
    std::string tid = std::to_string((unsigned long)tarvex_thread_self());
    EXPECT_EQ(written(), tid + "::box:  WARN: " + std::to_string(getpid()) + ": f: " + tid +
                             "::text 7\n");
}

TEST_F(BoxFrameDebug, UnsetVariableWritesNothing)
{
    unsetenv("TARVEX_BOX_DEBUG");
    tarvex_debug_handle_t &h = tarvex_i_TARVEX_BOX_debug_handle;
    h = tarvex_debug_handle_t{};
    ASSERT_EQ(tarvex_debug_init("TARVEX_BOX_DEBUG", "TRACE DEBUG INFO WARN ERROR", &h), 0);
    EXPECT_EQ(h.levels, 0u);
    EXPECT_EQ(h.file, nullptr);
    /* No stream: even a direct call of the printers is harmless. */
    tarvex_box_debug_line(TARVEX_BOX_TRACE, "f", "x\n");
    tarvex_i_TARVEX_BOX_debug_printf("x\n");
    tarvex_i_TARVEX_BOX_debug_time_printf("x\n");
    tarvex_i_TARVEX_BOX_debug_fwrite("x", 1, 1);
}

TEST_F(BoxFrameDebug, DeactivationSilencesThePrinters)
{
    tarvex_i_TARVEX_BOX_debug_handle = tarvex_debug_handle_t{};
    std::string value = "ALL," + path_;
    setenv("TARVEX_BOX_DEBUG", value.c_str(), 1);
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
    unsetenv("TARVEX_BOX_DEBUG");
    ASSERT_NE(tarvex_i_TARVEX_BOX_debug_handle.file, nullptr);
    EXPECT_TRUE(tarvex_i_TARVEX_BOX_debug_handle.using_file);
    TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "before\n");
    fflush(tarvex_i_TARVEX_BOX_debug_handle.file);
    ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_box_common_module), 0);

    EXPECT_EQ(tarvex_i_TARVEX_BOX_debug_handle.file, nullptr);
    tarvex_box_debug_line(TARVEX_BOX_TRACE, "f", "after\n");
    tarvex_i_TARVEX_BOX_debug_fwrite("after", 1, 5);
    std::string text = read_file(path_);
    EXPECT_NE(text.find("before\n"), std::string::npos);
    EXPECT_EQ(text.find("after"), std::string::npos);
}

} // namespace
