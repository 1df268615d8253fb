// Shared pieces of the REST client's integration tests: the scripted HTTP
// server in a child process, a fake server operation whose completions run
// on a worker thread, and a compact way to make one request.
#ifndef DSI_REST_FIXTURE_H
#define DSI_REST_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarvex_dsi_rest.h"

namespace dsi_rest_test {

class ModuleEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
        unsetenv("http_proxy");
        unsetenv("https_proxy");
        unsetenv("HTTP_PROXY");
        unsetenv("HTTPS_PROXY");
        unsetenv("ALL_PROXY");
        unsetenv("all_proxy");
        unsetenv("TARVEX_DSI_REST_CA_FILE");
    }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_dsi_rest_module); }
};
inline ::testing::Environment *const module_environment =
    ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);

inline std::string make_temp_dir()
{
    char pattern[] = "/tmp/dsi_rest_test_XXXXXX";
    const char *dir = mkdtemp(pattern);
    return dir != nullptr ? dir : "";
}

inline int run_command(const std::string &command)
{
    return std::system(command.c_str());
}

/* The scripted server (tests/support/http_script_server.py) on a free port. */
class ScriptServer {
public:
    explicit ScriptServer(const std::string &cert = "", const std::string &key = "")
        : dir_(make_temp_dir())
    {
        std::string port_file = dir_ + "/port";
        std::vector<std::string> args = {TARVEX_PYTHON, TARVEX_HTTP_SCRIPT_SERVER, "--port-file",
                                         port_file};
        if (!cert.empty())
            args.insert(args.end(), {"--tls-cert", cert, "--tls-key", key});
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        for (int i = 0; i < 200 && port_ == 0; i++) {
            std::ifstream in(port_file);
            if (!(in >> port_))
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        scheme_ = cert.empty() ? "http" : "https";
    }
    ~ScriptServer()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        std::filesystem::remove_all(dir_);
    }
    bool running() const { return port_ != 0; }
    std::string url(const std::string &path) const
    {
        return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    std::string dir_;
    std::string scheme_;
    pid_t pid_ = -1;
    int port_ = 0;
};

/* One request's outcome, with the JSON body parsed. */
struct Exchange {
    tarvex_result_t result = TARVEX_SUCCESS;
    int status = 0;
    json_t *json = nullptr;
    std::map<std::string, std::string> wanted; // desired header -> value ("" = absent)
    uint64_t uploaded = 0;
    uint64_t downloaded = 0;
    ~Exchange() { json_decref(json); }
    int error_type() const
    {
        const tarvex_object_t *error = tarvex_error_peek(result);
        return error != nullptr ? tarvex_error_get_type(error) : 0;
    }
    bool retryable() const { return tarvex_dsi_rest_error_is_retryable(result); }
    std::string text(const char *key) const
    {
        const char *value = json_string_value(json_object_get(json, key));
        return value != nullptr ? value : "";
    }
};

using Pairs = std::vector<std::pair<const char *, const char *>>;

struct KeyArray {
    std::vector<tarvex_dsi_rest_key_value_t> pairs;
    tarvex_dsi_rest_key_array_t array{};
    explicit KeyArray(const Pairs &in)
    {
        for (auto &[k, v] : in)
            pairs.push_back({k, v});
        array = {pairs.size(), pairs.empty() ? nullptr : pairs.data()};
    }
};

struct Body {
    tarvex_dsi_rest_data_write_t writer = nullptr;
    void *arg = nullptr;
};

inline void make_request(Exchange &out, const char *method, const std::string &url,
                         const Pairs &query = {}, const Pairs &headers = {}, Body body = {},
                         const std::vector<const char *> &desired = {},
                         tarvex_dsi_rest_progress_t progress = nullptr,
                         void *progress_arg = nullptr)
{
    KeyArray q(query), h(headers);
    std::vector<tarvex_dsi_rest_key_value_t> want;
    for (const char *key : desired)
        want.push_back({key, nullptr});
    tarvex_dsi_rest_response_arg_t record{};
    record.desired_headers = {want.size(), want.empty() ? nullptr : want.data()};
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &record;
    callbacks.data_write_callback = body.writer;
    callbacks.data_write_callback_arg = body.arg;
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &out.json;
    callbacks.progress_callback = progress;
    callbacks.progress_callback_arg = progress_arg;
    out.result = tarvex_dsi_rest_request(method, url.c_str(), query.empty() ? nullptr : &q.array,
                                         headers.empty() ? nullptr : &h.array, &callbacks);
    out.status = record.response_code;
    out.uploaded = record.request_bytes_uploaded;
    out.downloaded = record.response_bytes_downloaded;
    for (auto &pair : want)
        out.wanted[pair.key] = pair.value != nullptr ? pair.value : "";
    tarvex_dsi_rest_response_arg_clear(&record);
}

inline std::string url_without_query(const std::string &url)
{
    return url.substr(0, url.find('?'));
}

/* The request headers the echo route saw, as name -> value (names as sent). */
inline std::map<std::string, std::string> echoed_headers(const Exchange &ex)
{
    std::map<std::string, std::string> out;
    size_t i;
    json_t *pair;
    json_array_foreach(json_object_get(ex.json, "headers"), i, pair)
        out[json_string_value(json_array_get(pair, 0))] = json_string_value(json_array_get(pair, 1));
    return out;
}

/* A server operation backed by memory: register_write lands in `sink` at
 * its offset, register_read serves `source` in pieces of at most `chunk`
 * bytes.  Completions run on a worker thread, as they do in the server. */
class FakeOp {
public:
    std::string source;
    size_t chunk = SIZE_MAX;
    size_t block_size = 256 * 1024;
    int fail_write_number = -1; // the n-th write (from 0) fails
    bool fail_reads = false;

    std::mutex mutex;
    std::string sink;
    uint64_t bytes_written_reported = 0;
    uint64_t bytes_recvd_reported = 0;
    int writes = 0;
    tarvex_off_t lowest_offset = INT64_MAX;

    FakeOp() : worker_([this] { run(); }) { op = tarvex_gfs_operation_create(&provider, this); }
    ~FakeOp()
    {
        {
            std::lock_guard<std::mutex> lock(queue_mutex_);
            stopping_ = true;
        }
        queue_cond_.notify_all();
        worker_.join();
        tarvex_gfs_operation_destroy(op);
    }

    tarvex_gfs_operation_t op = nullptr;

private:
    static FakeOp *self(void *ctx) { return static_cast<FakeOp *>(ctx); }

    void post(std::function<void()> job)
    {
        {
            std::lock_guard<std::mutex> lock(queue_mutex_);
            jobs_.push_back(std::move(job));
        }
        queue_cond_.notify_all();
    }

    void run()
    {
        std::unique_lock<std::mutex> lock(queue_mutex_);
        for (;;) {
            queue_cond_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty())
                return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    static tarvex_result_t register_write(void *ctx, tarvex_gfs_operation_t op,
                                          tarvex_byte_t *buffer, tarvex_size_t length,
                                          tarvex_off_t offset, int,
                                          tarvex_gridftp_server_write_cb_t callback,
                                          void *user_arg)
    {
        FakeOp *f = self(ctx);
        f->post([=] {
            tarvex_result_t result = TARVEX_SUCCESS;
            {
                std::lock_guard<std::mutex> lock(f->mutex);
                if (f->writes++ == f->fail_write_number) {
                    result = tarvex_error_put(tarvex_error_construct_error(
                        nullptr, nullptr, 1, __FILE__, __func__, __LINE__, "data channel closed"));
                } else {
                    size_t end = static_cast<size_t>(offset) + length;
                    if (f->sink.size() < end)
                        f->sink.resize(end);
                    memcpy(f->sink.data() + offset, buffer, length);
                    f->lowest_offset = std::min(f->lowest_offset, offset);
                }
            }
            callback(op, result, buffer, length, user_arg);
        });
        return TARVEX_SUCCESS;
    }

    static tarvex_result_t register_read(void *ctx, tarvex_gfs_operation_t op,
                                         tarvex_byte_t *buffer, tarvex_size_t length,
                                         tarvex_gridftp_server_read_cb_t callback,
                                         void *user_arg)
    {
        FakeOp *f = self(ctx);
        f->post([=] {
            if (f->fail_reads) {
                callback(op, tarvex_error_put(tarvex_error_construct_error(
                                 nullptr, nullptr, 1, __FILE__, __func__, __LINE__, "reset")),
                         buffer, 0, 0, false, user_arg);
                return;
            }
            size_t offset = f->read_position_;
            size_t n = std::min({static_cast<size_t>(length), f->chunk,
                                 f->source.size() - f->read_position_});
            memcpy(buffer, f->source.data() + offset, n);
            f->read_position_ += n;
            bool eof = n == 0 && f->read_position_ == f->source.size();
            callback(op, TARVEX_SUCCESS, buffer, n, static_cast<tarvex_off_t>(offset), eof,
                     user_arg);
        });
        return TARVEX_SUCCESS;
    }

    static void update_written(void *ctx, tarvex_off_t, tarvex_off_t length)
    {
        std::lock_guard<std::mutex> lock(self(ctx)->mutex);
        self(ctx)->bytes_written_reported += static_cast<uint64_t>(length);
    }
    static void update_recvd(void *ctx, tarvex_off_t length)
    {
        std::lock_guard<std::mutex> lock(self(ctx)->mutex);
        self(ctx)->bytes_recvd_reported += static_cast<uint64_t>(length);
    }
    static void block_size_of(void *ctx, tarvex_size_t *size) { *size = self(ctx)->block_size; }

    static inline const tarvex_gfs_operation_provider_t provider = [] {
        tarvex_gfs_operation_provider_t p{};
        p.register_read = register_read;
        p.register_write = register_write;
        p.update_bytes_written = update_written;
        p.update_bytes_recvd = update_recvd;
        p.get_block_size = block_size_of;
        return p;
    }();

    size_t read_position_ = 0; // touched by the worker only
    std::mutex queue_mutex_;
    std::condition_variable queue_cond_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::thread worker_;
};

/* Byte i of the server's /bytes route. */
inline std::string pattern(size_t first, size_t count)
{
    std::string out(count, '\0');
    for (size_t i = 0; i < count; i++)
        out[i] = static_cast<char>((first + i) % 251);
    return out;
}

} // namespace dsi_rest_test

#endif
