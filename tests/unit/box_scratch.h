/*
 * A scratch directory for the plug-in's pacing files and, when levels are
 * given, its debug stream written to a file there.  Both are put back and
 * the directory removed when the object goes.
 *
 * box_home points the plug-in's "$HOME" at a directory of the test's, so
 * that no test touches the real home of the user running it (test programs
 * run side by side would otherwise share, make and remove its ".tarvex").
 */
#ifndef TARVEX_TEST_BOX_SCRATCH_H
#define TARVEX_TEST_BOX_SCRATCH_H

#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "config.h"
#include "tarvex_box_common.h"

/* How the plug-in reads the password entry (getpwuid_r unless replaced). */
extern "C" int (*tarvex_i_box_getpwuid_r)(uid_t, struct passwd *, char *, size_t,
                                         struct passwd **);

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

    const std::string &dir() const { return dir_; }
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

/* While it lives, the plug-in reads the user's password entry with its
 * home replaced by `dir`. */
class box_home {
public:
    explicit box_home(const std::string &dir)
    {
        path() = dir;
        tarvex_i_box_getpwuid_r = entry;
    }
    ~box_home() { tarvex_i_box_getpwuid_r = saved_; }
    box_home(const box_home &) = delete;
    box_home &operator=(const box_home &) = delete;

    static const std::string &dir() { return path(); }

private:
    static std::string &path()
    {
        static std::string home;
        return home;
    }
    static int entry(uid_t uid, struct passwd *pw, char *buffer, size_t size,
                     struct passwd **found)
    {
        int rc = getpwuid_r(uid, pw, buffer, size, found);
        if (rc == 0 && *found != nullptr)
            pw->pw_dir = const_cast<char *>(path().c_str());
        return rc;
    }

    decltype(tarvex_i_box_getpwuid_r) saved_ = tarvex_i_box_getpwuid_r;
};

} // namespace tarvex_test

#endif
