/*
 * Pacing of one Box user's requests by several processes: four processes
 * on one host sharing its pacing file, and four hosts (processes with a
 * home each, so no file is shared) through a Redis server of the bench's
 * own on a loopback port.  Each makes CALLS paced calls at RATE per second
 * for the same user (default 200 and 16).  Prints, asserts nothing:
 *
 *   cluster_pacing: hosts=H calls=N seconds=S floor_seconds=F ratio=S/F slot_us=C store=K
 *
 * seconds: from the release of all processes to the end of the last call;
 * floor_seconds: N / RATE, the least the spacing allows; slot_us: the
 * median cost of taking a slot, measured apart by one process taking 2000
 * slots at a spacing of 1 us, so that no pacing wait is in it (in the runs
 * themselves a file slot also waits for the lock while another process
 * sleeps its spacing, which is queueing, not cost).
 *
 *   cluster_pacing [CALLS [RATE]]
 */
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "box_pacing_support.h"

namespace {

using namespace tarvex_test;

struct figures {
    double seconds;
    std::vector<pacing_call> calls;
};

figures run(const pacing_hosts_options &options)
{
    char name[] = "/tmp/cluster-pacing-XXXXXX";
    if (mkdtemp(name) == nullptr)
        throw std::runtime_error("no scratch directory");
    figures out{};
    int64_t released = 0;
    {
        pacing_hosts hosts(name, options);
        if (!hosts.go())
            throw std::runtime_error("the processes did not start");
        released = wall_us();
        if (!hosts.finished(std::chrono::hours(1)))
            throw std::runtime_error("a process failed");
        out.calls = hosts.all();
    }
    int64_t last = released;
    for (const pacing_call &call : out.calls)
        last = std::max(last, call.ended_us);
    out.seconds = (last - released) / 1e6;
    std::filesystem::remove_all(name);
    return out;
}

double median_cost_us(const std::vector<pacing_call> &calls)
{
    if (calls.empty())
        return 0;
    std::vector<int64_t> costs;
    costs.reserve(calls.size());
    for (const pacing_call &call : calls)
        costs.push_back(call.cost_us);
    auto middle = costs.begin() + static_cast<std::ptrdiff_t>(costs.size() / 2);
    std::nth_element(costs.begin(), middle, costs.end());
    return (double)*middle;
}

void report(int hosts, const pacing_hosts_options &paced, const char *store)
{
    figures run_figures = run(paced);
    pacing_hosts_options alone = paced;
    alone.hosts = 1;
    alone.calls = 2000;
    alone.per_second = 1000000;
    double slot_us = median_cost_us(run(alone).calls);
    const int calls = paced.hosts * paced.calls;
    const double floor = (double)calls / paced.per_second;
    printf("cluster_pacing: hosts=%d calls=%d seconds=%.3f floor_seconds=%.3f ratio=%.4f "
           "slot_us=%.0f store=%s\n",
           hosts, calls, run_figures.seconds, floor, run_figures.seconds / floor, slot_us, store);
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    const int calls = argc > 1 ? atoi(argv[1]) : 200;
    const int rate = argc > 2 ? atoi(argv[2]) : 16;
    if (calls <= 0 || calls > pacing_hosts::capacity || rate <= 0) {
        fprintf(stderr, "usage: cluster_pacing [CALLS (1 to %d) [RATE]]\n",
                pacing_hosts::capacity);
        return 2;
    }
    if (!have_program("redis-server")) {
        fprintf(stderr, "cluster_pacing: redis-server is not installed "
                        "(scripts/install-deps brings it)\n");
        return 1;
    }
    tarvex_module_activate(&tarvex_i_common_module);
    try {
        report(1, {4, calls, rate, "", true}, "file");
        redis_server redis;
        report(4, {4, calls, rate, redis.url()}, "redis");
    } catch (const std::exception &e) {
        fprintf(stderr, "cluster_pacing: %s\n", e.what());
        return 1;
    }
    tarvex_module_deactivate(&tarvex_i_common_module);
    return 0;
}
