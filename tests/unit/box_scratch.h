/*
 * A scratch directory for the plug-in's pacing files and, when levels are
 * given, its debug stream written to a file there.  Both are put back and
 * the directory removed when the object goes.
 */
#ifndef TARVEX_TEST_BOX_SCRATCH_H
#define TARVEX_TEST_BOX_SCRATCH_H

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tarvex_box_common.h"

namespace tarvex_test {

class box_scratch {
public:
    explicit box_scratch(unsigned debug_levels = 0)
    {
        char name[] = "/tmp/box-test-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no scratch directory");
        dir_ = name;
        tarvex_i_box_retry_path = (retry_path_ = dir_ + "/box-r").c_str();
        if (debug_levels == 0)
            return;
        tarvex_i_TARVEX_BOX_debug_handle = tarvex_debug_handle_t{};
        tarvex_i_TARVEX_BOX_debug_handle.levels = debug_levels;
        tarvex_i_TARVEX_BOX_debug_handle.file = fopen(log_path().c_str(), "w");
    }
    ~box_scratch()
    {
        FILE *file = tarvex_i_TARVEX_BOX_debug_handle.file;
        if (file != nullptr && file != saved_debug_.file)
            fclose(file);
        tarvex_i_TARVEX_BOX_debug_handle = saved_debug_;
        tarvex_i_box_retry_path = saved_retry_path_;
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    box_scratch(const box_scratch &) = delete;
    box_scratch &operator=(const box_scratch &) = delete;

    const std::string &retry_path() const { return retry_path_; }
    std::string log_path() const { return dir_ + "/debug.log"; }
    /* What the debug stream has written so far. */
    std::string debug_text() const
    {
        if (tarvex_i_TARVEX_BOX_debug_handle.file != nullptr)
            fflush(tarvex_i_TARVEX_BOX_debug_handle.file);
        std::ifstream in(log_path(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    const char *saved_retry_path_ = tarvex_i_box_retry_path;
    tarvex_debug_handle_t saved_debug_ = tarvex_i_TARVEX_BOX_debug_handle;
    std::string dir_, retry_path_;
};

} // namespace tarvex_test

#endif
