/*
 * Lists a folder of 10,000 items (and one of 1,000) through the plug-in's
 * stat operation against the Box emulator, acting as the server: entries
 * are counted and dropped, as the server drops them once sent.  Prints the
 * time against the floor set by request pacing (pages x pacing delay) and
 * how much the peak resident set grew during each listing.  The first
 * listing of a folder also fills the path cache (one record per item,
 * kept for the session); a second round shows the listing's own memory.
 *
 *   list_folder [private|shared]
 *   list_folder: items=10000 seconds=<s> pacing_floor_seconds=<f> ratio=<s/f> peak_rss_mb=<m>
 *                cpu_seconds=<c>
 *
 * <c> is the processor time of the listing thread (the plug-in's own
 * work: parsing, caching, the stat entries), which the pacing sleeps do
 * not hide.  A last line times lookups the cache answers (a path
 * resolution of a listed item) and, apart, the journal's part of each:
 * the catch-up a resolution begins with, which with "shared" reads the
 * journal's generation and with "private" only finds it has nothing to do:
 *
 *   list_folder: lookups=200000 ns_per_lookup=<n> journal_ns_per_lookup=<j>
 */
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "box_emulator.h"
#include "box_plugin_bench.h"
#include "common_module.h"
#include "config.h"
#include "destroy.h"
#include "path_resolve.h"
#include "session_journal.h"
#include "start.h"
#include "stat.h"
#include "tarvex_box_common.h"

namespace {

using namespace tarvex_bench;

/* A "Vm...:" figure of /proc/self/status in kB, or -1. */
long status_kb(const char *field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    size_t length = strlen(field);
    while (std::getline(status, line))
        if (line.compare(0, length, field) == 0)
            return strtol(line.c_str() + length, nullptr, 10);
    return -1;
}

/* Processor time of the calling thread, in seconds. */
double thread_cpu_seconds()
{
    struct rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/* Resets the peak resident set to the current one; false when the kernel
 * does not let us. */
bool reset_peak()
{
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good();
}

/* Samples the resident set while a listing runs, for kernels without the
 * peak reset. */
class rss_sampler {
public:
    rss_sampler() : thread_([this] {
        while (!stop_) {
            long kb = status_kb("VmRSS:");
            if (kb > peak_)
                peak_ = kb;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }) {}
    long stop()
    {
        stop_ = true;
        thread_.join();
        return peak_;
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> peak_{0};
    std::thread thread_;
};

std::string seed_json(const char *folder, int count)
{
    std::string json = std::string(R"({"path":")") + folder + R"(","type":"folder"})";
    char entry[160];
    for (int i = 0; i < count; i++) {
        snprintf(entry, sizeof(entry),
                 R"(,{"path":"%s/item-%05d.dat","type":"file","size":%d})", folder, i,
                 1000 + i);
        json += entry;
    }
    return json;
}

/* One listing through stat; false when it failed.  `label` prefixes the
 * figures line. */
bool list(const tarvex_gfs_operation_provider_t &p, PluginAnswers &a, const char *folder, int items,
          const char *label = "list_folder:")
{
    tarvex_gfs_stat_info_t info = {};
    info.file_only = false;
    info.pathname = const_cast<char *>(folder);
    a.entries = a.batches = 0;
    a.finished = false;

    long before_kb = status_kb("VmRSS:");
    bool have_reset = reset_peak();
    rss_sampler sampler;
    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&p, &a);
    auto t0 = std::chrono::steady_clock::now();
    double cpu0 = thread_cpu_seconds();
    tarvex_i_box_stat(op, &info, a.session);
    double cpu = thread_cpu_seconds() - cpu0;
    auto t1 = std::chrono::steady_clock::now();
    tarvex_gfs_operation_destroy(op);
    long sampled_kb = sampler.stop();
    long peak_kb = have_reset ? status_kb("VmHWM:") : sampled_kb;

    if (!a.finished || a.result != TARVEX_SUCCESS || a.entries != items + 1) {
        fprintf(stderr, "list_folder: listing %s failed: result=%#x entries=%ld\n", folder,
                a.result, a.entries);
        return false;
    }
    double seconds = std::chrono::duration<double>(t1 - t0).count();
    int pages = (items + 299) / 300;
    double floor = pages / (double)tarvex_i_box_api_per_second;
    double growth_mb = (peak_kb - before_kb) / 1024.0;
    printf("%s items=%d seconds=%.3f pacing_floor_seconds=%.3f ratio=%.3f "
           "peak_rss_mb=%.2f cpu_seconds=%.3f\n",
           label, items, seconds, floor, seconds / floor, growth_mb < 0 ? 0.0 : growth_mb, cpu);
    printf("# items=%d pages=%d batches=%ld path_cache_entries=%d peak_from=%s\n", items, pages,
           a.batches, tarvex_hashtable_size(&static_cast<tarvex_box_session_t *>(a.session)->cache),
           have_reset ? "VmHWM" : "sampled VmRSS");
    fflush(stdout);
    return true;
}

/* Lookups the cache answers, and the journal's part of each: the catch-up
 * every path resolution begins with (with "private", a check that finds
 * nothing to do). */
bool time_lookups(PluginAnswers &a)
{
    constexpr int lookups = 200000, catch_ups = 10000000;
    auto *box = static_cast<tarvex_box_session_t *>(a.session);
    const char *path = "/big/item-05000.dat";
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < lookups; i++) {
        tarvex_box_path_info_t *entry = nullptr;
        if (tarvex_box_path_resolve(box, path, &entry, nullptr) != TARVEX_SUCCESS) {
            fprintf(stderr, "list_folder: %s is not found\n", path);
            return false;
        }
    }
    auto t1 = std::chrono::steady_clock::now();
    for (int i = 0; i < catch_ups; i++)
        tarvex_box_journal_catch_up(box);
    auto t2 = std::chrono::steady_clock::now();
    printf("list_folder: lookups=%d ns_per_lookup=%.1f journal_ns_per_lookup=%.2f\n", lookups,
           std::chrono::duration<double, std::nano>(t1 - t0).count() / lookups,
           std::chrono::duration<double, std::nano>(t2 - t1).count() / catch_ups);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string mode = argc > 1 ? argv[1] : "private";
    if (mode != "private" && mode != "shared") {
        fprintf(stderr, "usage: list_folder [private|shared]\n");
        return 2;
    }
    try {
        PluginScratch files("list_folder");
        tarvex_test::BoxEmulator emulator;
        emulator.seed(R"({"entries":[)" + seed_json("/small", 1000) + "," +
                      seed_json("/big", 10000) + "]}");
        tarvex_box_set_bases(emulator.api_base().c_str(), emulator.upload_base().c_str());

        tarvex_gfs_operation_provider_t p = plugin_provider();
        PluginAnswers a;
        a.policy = R"({"session_cache": ")" + mode + "\"}";
        printf("# session_cache=%s\n", mode.c_str());
        if (!start_plugin_session(p, a)) {
            fprintf(stderr, "list_folder: session start failed: %#x\n", a.result);
            return 1;
        }
        /* A second round replaces the cached records instead of adding
         * new ones, so its peak growth is what the listing itself holds,
         * whatever the number of batches. */
        bool ok = list(p, a, "/small", 1000) && list(p, a, "/big", 10000) &&
                  list(p, a, "/small", 1000, "# again, cache filled:") &&
                  list(p, a, "/big", 10000, "# again, cache filled:") && time_lookups(a);
        tarvex_i_box_destroy(a.session);
        return ok ? 0 : 1;
    } catch (const std::exception &e) {
        fprintf(stderr, "list_folder: %s\n", e.what());
        return 1;
    }
}
