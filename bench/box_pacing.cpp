/*
 * Costs of the plug-in's frame on the request path: a paced call that
 * needs no wait (lock, two clock reads, stamp), a trace line whose level
 * is off, and the rate that processes sharing one pacing file achieve
 * against the configured one.  Prints its figures; asserts nothing.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tarvex_box_common.h"

namespace {

using steady = std::chrono::steady_clock;

double seconds_since(steady::time_point start)
{
    return std::chrono::duration<double>(steady::now() - start).count();
}

void paced_call_cost()
{
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("cost", 16, &retry);
    constexpr int calls = 100000;
    auto start = steady::now();
    for (int i = 0; i < calls; i++) {
        retry.shared->last.tv_sec -= 2; /* the last stamp is old: no wait */
        tarvex_i_box_retry_delay(0, &retry);
    }
    printf("paced call without wait: %.2f us (shared file: %s)\n",
           seconds_since(start) * 1e6 / calls, retry.fd != -1 ? "yes" : "no");
    tarvex_i_box_retry_state_destroy(&retry);
}

void trace_off_cost()
{
    tarvex_i_TARVEX_BOX_debug_handle.levels = 0;
    constexpr int calls = 10000000;
    auto start = steady::now();
    for (int i = 0; i < calls; i++)
        TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "enter %d\n", i);
    printf("trace line, level off: %.2f ns\n", seconds_since(start) * 1e9 / calls);
}

/* `processes` processes make paced calls at `per_second` for about
 * `seconds`; the total over the wall time is the achieved rate. */
void shared_rate(int processes, int per_second, double seconds)
{
    int calls = (int)(per_second * seconds / processes);
    auto start = steady::now();
    for (int p = 0; p < processes; p++) {
        if (fork() == 0) {
            tarvex_box_retry_t retry{};
            tarvex_i_box_retry_state_create("rate", per_second, &retry);
            for (int i = 0; i < calls; i++)
                tarvex_i_box_retry_delay(0, &retry);
            tarvex_i_box_retry_state_destroy(&retry);
            _exit(0);
        }
    }
    while (wait(nullptr) > 0) {
    }
    double elapsed = seconds_since(start);
    printf("%d process(es) at %d/s: %.1f calls/s achieved (%d calls in %.2f s)\n",
           processes, per_second, calls * processes / elapsed, calls * processes, elapsed);
}

} // namespace

int main()
{
    char name[] = "/tmp/box-pacing-bench-XXXXXX";
    if (mkdtemp(name) == nullptr)
        return 1;
    std::string path = std::string(name) + "/box-r";
    tarvex_i_box_retry_path = path.c_str();

    paced_call_cost();
    trace_off_cost();
    shared_rate(1, 16, 2.0);
    shared_rate(4, 16, 2.0);
    shared_rate(4, 200, 2.0);

    std::filesystem::remove_all(name);
    return 0;
}
