// Download throughput of the REST client against curl(1).
//
// Seeds a 1 GiB synthetic file in the Box emulator, asks for its content
// URL, and follows the 302's Location three ways: through
// tarvex_dsi_rest_request into a sink (a read callback that counts and
// drops), through tarvex_dsi_rest_request into a server operation
// (tarvex_dsi_rest_read_gridftp_op, as downloads do) whose writes complete
// at once on a worker thread and are discarded, and with curl(1) into
// /dev/null.  Each runs three times, alternating; the best run of each
// counts (CPU seconds per run are shown too).  The operation path copies
// every byte once more than the others, into the buffers it hands on; its
// figure comes on a line of its own.  The last line is the verdict:
//   rest_download: client_MBps=<a> curl_MBps=<b> ratio=<a/b>
#include <sys/resource.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "box_emulator.h"
#include "tarvex_dsi_rest.h"

namespace {

constexpr uint64_t file_size = 1ull << 30;
// The machine is shared: the best of a few alternating runs is the figure
// least disturbed by others.
constexpr int rounds = 3;
const char *const bearer = "Authorization: Bearer test-token";

// An operation whose writes complete on a worker thread and go nowhere.
class SinkOp {
public:
    SinkOp() : worker_([this] { run(); })
    {
        tarvex_gfs_operation_provider_t provider{};
        provider.register_write = register_write;
        provider.get_block_size = [](void *, tarvex_size_t *size) { *size = 1u << 20; };
        provider_ = provider;
        op = tarvex_gfs_operation_create(&provider_, this);
    }
    ~SinkOp()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        cond_.notify_all();
        worker_.join();
        tarvex_gfs_operation_destroy(op);
    }
    tarvex_gfs_operation_t op = nullptr;

private:
    static tarvex_result_t register_write(void *ctx, tarvex_gfs_operation_t op,
                                          tarvex_byte_t *buffer, tarvex_size_t length,
                                          tarvex_off_t, int,
                                          tarvex_gridftp_server_write_cb_t callback,
                                          void *user_arg)
    {
        auto *self = static_cast<SinkOp *>(ctx);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->jobs_.push_back([=] { callback(op, TARVEX_SUCCESS, buffer, length, user_arg); });
        }
        self->cond_.notify_all();
        return TARVEX_SUCCESS;
    }

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cond_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
            if (jobs_.empty())
                return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    tarvex_gfs_operation_provider_t provider_{};
    std::mutex mutex_;
    std::condition_variable cond_;
    std::deque<std::function<void()>> jobs_;
    bool stop_ = false;
    std::thread worker_;
};

double seconds_now()
{
    return tarvex_time_monotonic_usec() / 1e6;
}

// CPU seconds (user + system) used so far by this process or its waited-for
// children: unlike wall time, hardly disturbed by others on the machine.
double cpu_seconds(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Run {
    double mbps;
    double cpu;
};

// The download URL of the file: the Location of the content request's 302.
std::string location_of(const std::string &content_url)
{
    tarvex_dsi_rest_key_value_t auth[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t headers = {1, auth};
    tarvex_dsi_rest_key_value_t wanted[] = {{"Location", nullptr}};
    tarvex_dsi_rest_response_arg_t record{};
    record.desired_headers = {1, wanted};
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &record;
    tarvex_result_t result =
        tarvex_dsi_rest_request("GET", content_url.c_str(), nullptr, &headers, &callbacks);
    if (result != TARVEX_SUCCESS || record.response_code != 302 || wanted[0].value == nullptr)
        throw std::runtime_error("content request did not answer 302 with a Location");
    std::string location = wanted[0].value;
    tarvex_dsi_rest_response_arg_clear(&record);
    return location;
}

tarvex_result_t count_bytes(void *arg, void *, size_t length)
{
    *static_cast<uint64_t *>(arg) += length;
    return TARVEX_SUCCESS;
}

// One timed GET of `url` through the REST client into `read`; false when
// the request failed or did not answer 200.
bool timed_get(const std::string &url, tarvex_dsi_rest_data_read_t read, void *read_arg, Run &run)
{
    tarvex_dsi_rest_key_value_t auth[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t headers = {1, auth};
    tarvex_dsi_rest_response_arg_t record{};
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &record;
    callbacks.data_read_callback = read;
    callbacks.data_read_callback_arg = read_arg;
    callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    callbacks.progress_callback_arg = reinterpret_cast<void *>(uintptr_t{30000});
    double cpu = cpu_seconds(RUSAGE_SELF);
    double start = seconds_now();
    tarvex_result_t result = tarvex_dsi_rest_request("GET", url.c_str(), nullptr, &headers,
                                                     &callbacks);
    double elapsed = seconds_now() - start;
    run = {file_size / 1e6 / elapsed, cpu_seconds(RUSAGE_SELF) - cpu};
    return result == TARVEX_SUCCESS && record.response_code == 200;
}

Run sink_run(const std::string &url)
{
    uint64_t received = 0;
    Run run{};
    if (!timed_get(url, count_bytes, &received, run) || received != file_size)
        throw std::runtime_error("client download into a sink failed");
    return run;
}

Run operation_run(const std::string &url)
{
    SinkOp sink;
    tarvex_dsi_rest_gridftp_op_arg_t arg{sink.op, 0, -1, false};
    Run run{};
    if (!timed_get(url, tarvex_dsi_rest_read_gridftp_op, &arg, run) ||
        static_cast<uint64_t>(arg.offset) != file_size || !arg.eof)
        throw std::runtime_error("client download failed");
    return run;
}

Run curl_run(const std::string &url)
{
    std::string command = "curl -s -o /dev/null -H '" + std::string(bearer) +
                          "' -w '%{size_download} %{time_total}' '" + url + "'";
    double cpu = cpu_seconds(RUSAGE_CHILDREN);
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("cannot run curl");
    unsigned long long size = 0;
    double elapsed = 0;
    int fields = fscanf(pipe, "%llu %lf", &size, &elapsed);
    int status = pclose(pipe);
    cpu = cpu_seconds(RUSAGE_CHILDREN) - cpu;
    if (fields != 2 || status != 0 || size != file_size || elapsed <= 0)
        throw std::runtime_error("curl download failed");
    return {size / 1e6 / elapsed, cpu};
}

} // namespace

int main()
{
    try {
        tarvex_module_activate(&tarvex_i_dsi_rest_module);
        tarvex_test::BoxEmulator emulator;
        auto ids = emulator.seed(
            R"({"entries":[{"path":"/big","type":"file","size":1073741824}]})");
        std::string content_url = emulator.api_base() + "/2.0/files/" + ids.at("/big") + "/content";
        double client = 0, operation = 0, reference = 0;
        for (int round = 0; round < rounds; round++) {
            Run c = curl_run(location_of(content_url));
            Run r = sink_run(location_of(content_url));
            Run o = operation_run(location_of(content_url));
            printf("round %d: client %.1f MB/s (%.2f CPU s), through an operation %.1f MB/s "
                   "(%.2f CPU s), curl %.1f MB/s (%.2f CPU s)\n",
                   round + 1, r.mbps, r.cpu, o.mbps, o.cpu, c.mbps, c.cpu);
            client = std::max(client, r.mbps);
            operation = std::max(operation, o.mbps);
            reference = std::max(reference, c.mbps);
        }
        printf("rest_download_operation: client_MBps=%.1f curl_MBps=%.1f ratio=%.3f\n",
               operation, reference, operation / reference);
        printf("rest_download: client_MBps=%.1f curl_MBps=%.1f ratio=%.3f\n", client, reference,
               client / reference);
        tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
        return 0;
    } catch (const std::exception &e) {
        fprintf(stderr, "rest_download: %s\n", e.what());
        return 1;
    }
}
