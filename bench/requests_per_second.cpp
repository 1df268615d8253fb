// Small-request rate: 2,000 JSON GETs of a folder listing against the Box
// emulator, one after another on one thread.
//
//   requests_per_second                  the REST client alone, with the
//                                        response record and JSON reader the
//                                        plug-in uses
//   requests_per_second private|shared   through the plug-in: each request
//                                        is the listing of a stat of "/a",
//                                        with the path resolution before it,
//                                        under that "session_cache" policy
//                                        (pacing lifted to 1,000,000/s so
//                                        that the code, not the spacing, is
//                                        measured)
//
// Prints
//   requests_per_second: rps=<n> connections=<m> cpu_us=<c> [session_cache=<mode>]
// where m is the number of connections the client opened for them (and
// one warm-up request before them), and c the processor time this process
// (not the emulator) spent per request: on a machine shared with other
// work it varies far less than the rate.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "box_emulator.h"
#include "box_plugin_bench.h"
#include "common_module.h"
#include "config.h"
#include "destroy.h"
#include "start.h"
#include "stat.h"
#include "tarvex_box_common.h"
#include "tarvex_dsi_rest.h"

namespace {

using namespace tarvex_bench;

constexpr int request_count = 2000;

void list_root(const std::string &url)
{
    tarvex_dsi_rest_key_value_t auth[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t headers = {1, auth};
    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", "type,id,name,size"},
                                                 {"usemarker", "true"},
                                                 {"marker", nullptr},
                                                 {"limit", "300"}};
    tarvex_dsi_rest_key_array_t query = {4, query_pairs};
    tarvex_dsi_rest_key_value_t wanted[] = {{"Retry-After", nullptr}};
    tarvex_dsi_rest_response_arg_t record{};
    record.desired_headers = {1, wanted};
    json_t *document = nullptr;
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &record;
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &document;
    callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    callbacks.progress_callback_arg = reinterpret_cast<void *>(uintptr_t{30000});
    tarvex_result_t result =
        tarvex_dsi_rest_request("GET", url.c_str(), &query, &headers, &callbacks);
    bool ok = result == TARVEX_SUCCESS && record.response_code == 200 && document != nullptr;
    json_decref(document);
    tarvex_dsi_rest_response_arg_clear(&record);
    if (!ok)
        throw std::runtime_error("listing request failed");
}

/* ---- through the plug-in ---- */

void stat_folder(const tarvex_gfs_operation_provider_t &p, PluginAnswers &a)
{
    tarvex_gfs_stat_info_t info = {};
    info.pathname = const_cast<char *>("/a");
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&p, &a);
    a.result = TARVEX_FAILURE;
    tarvex_i_box_stat(op, &info, a.session);
    tarvex_gfs_operation_destroy(op);
    if (a.result != TARVEX_SUCCESS)
        throw std::runtime_error("stat failed");
}

/* Processor time of this process so far, user and system, in
 * microseconds. */
int64_t cpu_us()
{
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return (int64_t)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000 +
           usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode != "" && mode != "private" && mode != "shared") {
        fprintf(stderr, "usage: requests_per_second [private|shared]\n");
        return 2;
    }
    try {
        tarvex_module_activate(&tarvex_i_dsi_rest_module);
        PluginScratch files("requests_per_second");
        tarvex_test::BoxEmulator emulator;
        emulator.seed(R"({"entries":[{"path":"/a","type":"folder"},)"
                      R"({"path":"/b.txt","type":"file","content":"hello"}]})");
        std::string url = emulator.api_base() + "/2.0/folders/0/items";
        tarvex_box_set_bases(emulator.api_base().c_str(), emulator.upload_base().c_str());

        tarvex_gfs_operation_provider_t p = plugin_provider();
        PluginAnswers a;
        a.policy = R"({"user_api_rate_limit": 1000000, "session_cache": ")" +
                   (mode.empty() ? std::string("private") : mode) + "\"}";
        if (!mode.empty() && !start_plugin_session(p, a))
            throw std::runtime_error("session start failed");
        auto one = [&] {
            if (mode.empty())
                list_root(url);
            else
                stat_folder(p, a);
        };

        // The warm-up request opens the connection the timed ones reuse.
        uint64_t connections = tarvex_dsi_rest_connections_opened();
        one();
        int64_t start = tarvex_time_monotonic_usec();
        int64_t cpu_start = cpu_us();
        for (int i = 0; i < request_count; i++)
            one();
        double elapsed = (tarvex_time_monotonic_usec() - start) / 1e6;
        double cpu_per_request = double(cpu_us() - cpu_start) / request_count;
        connections = tarvex_dsi_rest_connections_opened() - connections;
        printf("requests_per_second: rps=%.0f connections=%llu cpu_us=%.1f",
               request_count / elapsed, static_cast<unsigned long long>(connections),
               cpu_per_request);
        if (!mode.empty())
            printf(" session_cache=%s", mode.c_str());
        printf("\n");
        if (a.session != nullptr)
            tarvex_i_box_destroy(a.session);
        tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
        return 0;
    } catch (const std::exception &e) {
        fprintf(stderr, "requests_per_second: %s\n", e.what());
        return 1;
    }
}
