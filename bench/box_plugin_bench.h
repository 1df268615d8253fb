/*
 * For the benchmarks that play the server themselves and call the Box
 * plug-in in-process (checksum, list_folder, requests_per_second): its
 * runtime and files set up and taken down, the credential every one of
 * them hands over, and an operation provider that records what the
 * plug-in answers.
 */
#ifndef TARVEX_BENCH_BOX_PLUGIN_BENCH_H
#define TARVEX_BENCH_BOX_PLUGIN_BENCH_H

#include <pwd.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "common_module.h"
#include "config.h"
#include "start.h"
#include "tarvex_box_common.h"

namespace tarvex_bench {

/* A token the emulator accepts, far from expiry. */
inline const char *const bench_creds =
    R"({"access_token":"test-token","token_expiry":"2099-01-01T00:00:00.000000+00:00",)"
    R"("sub":"bench-user","max_upload":53687091200})";

/* The plug-in's runtime, active while this lives, with its pacing and
 * journal files in a scratch folder of NAME; "$HOME/.tarvex", which
 * session start makes, is removed again if it was not there before. */
class PluginScratch {
public:
    explicit PluginScratch(const char *name)
    {
        dir_ = (std::filesystem::temp_directory_path() / (std::string(name) + "_XXXXXX")).string();
        if (mkdtemp(dir_.data()) == nullptr)
            throw std::runtime_error("no scratch folder");
        if (tarvex_module_activate(&tarvex_i_box_common_module) != 0) {
            std::filesystem::remove_all(dir_);
            throw std::runtime_error("cannot activate the plug-in's runtime");
        }
        retry_path_ = dir_ + "/box-r";
        tarvex_i_box_retry_path = retry_path_.c_str();
        const struct passwd *pw = getpwuid(getuid());
        home_dot_ = std::string(pw ? pw->pw_dir : "") + "/.tarvex";
        had_home_dot_ = access(home_dot_.c_str(), F_OK) == 0;
    }
    ~PluginScratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
        if (!had_home_dot_)
            rmdir(home_dot_.c_str());
        tarvex_module_deactivate(&tarvex_i_box_common_module);
    }
    PluginScratch(const PluginScratch &) = delete;
    PluginScratch &operator=(const PluginScratch &) = delete;

private:
    std::string dir_, retry_path_, home_dot_;
    bool had_home_dot_ = false;
};

/* What the plug-in tells the "server": the session it started, the last
 * result, and a listing's entries and batches. */
struct PluginAnswers {
    void *session = nullptr;
    tarvex_result_t result = TARVEX_SUCCESS;
    bool finished = false;
    long entries = 0;
    long batches = 0;
    std::string policy = "{}";
};

inline tarvex_gfs_operation_provider_t plugin_provider()
{
    tarvex_gfs_operation_provider_t p = {};
    p.finished_session_start = [](void *ctx, tarvex_result_t result, void *session,
                                  const char *, const char *) {
        auto *a = static_cast<PluginAnswers *>(ctx);
        a->session = session;
        a->result = result;
        a->finished = true;
    };
    p.finished_stat = [](void *ctx, tarvex_result_t result,
                         tarvex_gridftp_server_control_stat_t *, int count, bool partial) {
        auto *a = static_cast<PluginAnswers *>(ctx);
        a->entries += count;
        a->batches++;
        if (!partial) {
            a->result = result;
            a->finished = true;
        }
    };
    p.get_config_data = [](void *ctx, const char *key, char **data) -> tarvex_result_t {
        auto *a = static_cast<PluginAnswers *>(ctx);
        *data = strcmp(key, "config") == 0  ? strdup(a->policy.c_str())
                : strcmp(key, "creds") == 0 ? strdup(bench_creds)
                                            : nullptr;
        return TARVEX_SUCCESS;
    };
    return p;
}

/* Starts a session for the user "bench" with A's policy; false when the
 * plug-in refused (A's result says why). */
inline bool start_plugin_session(const tarvex_gfs_operation_provider_t &p, PluginAnswers &a)
{
    tarvex_gfs_session_info_t session_info = {};
    session_info.username = const_cast<char *>("bench");
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&p, &a);
    tarvex_i_box_start(op, &session_info);
    tarvex_gfs_operation_destroy(op);
    return a.session != nullptr;
}

} // namespace tarvex_bench

#endif
