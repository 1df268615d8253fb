// Shared pieces of the REST client's integration tests: the scripted HTTP
// server in a child process, one-call requests, and a memory-backed server
// operation whose completions run on other threads.
#ifndef DSI_REST_FIXTURE_H
#define DSI_REST_FIXTURE_H

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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
        for (const char *name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                                 "ALL_PROXY", "all_proxy", "TARVEX_DSI_REST_CA_FILE"})
            unsetenv(name);
    }
    void TearDown() override { tarvex_module_deactivate(&tarvex_i_dsi_rest_module); }
};
inline ::testing::Environment *const module_environment =
    ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);

inline std::string make_temp_dir()
{
    char pattern[] = "/tmp/dsi_rest_test_XXXXXX";
    return mkdtemp(pattern) != nullptr ? pattern : "";
}

/* One request of the scripted server's log, once its body was read. */
struct LogLine {
    std::string method, path, body_sha1;
    uint64_t body_length = 0;
};

/* The scripted server (tests/support/http_script_server.py) on a free
 * port; HTTPS when given a certificate and its key.  It ends when its
 * standard input closes, so it never outlives the test. */
class ScriptServer {
public:
    explicit ScriptServer(const std::string &cert = "", const std::string &key = "")
        : dir_(make_temp_dir()), scheme_(cert.empty() ? "http" : "https")
    {
        std::string command = std::string(TARVEX_PYTHON " " TARVEX_HTTP_SCRIPT_SERVER) +
                              " --port-file " + dir_ + "/port --log-file " + dir_ + "/log";
        if (!cert.empty())
            command += " --tls-cert " + cert + " --tls-key " + key;
        pipe_ = popen(command.c_str(), "w");
        for (int i = 0; i < 200 && !(std::ifstream(dir_ + "/port") >> port_); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~ScriptServer()
    {
        if (pipe_ != nullptr)
            pclose(pipe_);
        std::filesystem::remove_all(dir_);
    }
    bool running() const { return port_ != 0; }
    /* Every request logged so far, oldest first. */
    std::vector<LogLine> log() const
    {
        std::vector<LogLine> lines;
        std::ifstream in(dir_ + "/log");
        for (std::string text; std::getline(in, text);) {
            json_t *line = json_loads(text.c_str(), 0, nullptr);
            auto str = [line](const char *key) {
                const char *value = json_string_value(json_object_get(line, key));
                return std::string(value != nullptr ? value : "");
            };
            LogLine entry{str("method"), str("path"), str("body_sha1")};
            entry.body_length = uint64_t(json_integer_value(json_object_get(line, "body_length")));
            lines.push_back(entry);
            json_decref(line);
        }
        return lines;
    }
    std::string url(const std::string &path) const
    {
        return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    std::string dir_, scheme_;
    FILE *pipe_ = nullptr;
    int port_ = 0;
};

/* Tests sharing one plain-HTTP scripted server. */
class ServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server = new ScriptServer(); }
    static void TearDownTestSuite() { delete server; }
    void SetUp() override { ASSERT_TRUE(server->running()); }
    static inline ScriptServer *server = nullptr;
};

using Pairs = std::vector<std::pair<const char *, const char *>>;

struct KeyArray {
    std::vector<tarvex_dsi_rest_key_value_t> pairs;
    tarvex_dsi_rest_key_array_t array{};
    explicit KeyArray(const Pairs &in)
    {
        for (auto &[k, v] : in)
            pairs.push_back({k, v});
        array = {pairs.size(), pairs.data()};
    }
    const tarvex_dsi_rest_key_array_t *or_null() const { return pairs.empty() ? nullptr : &array; }
};

struct Request {
    const char *method = "GET";
    std::string url;
    Pairs query = {}, headers = {};
    tarvex_dsi_rest_data_write_t writer = nullptr;
    void *writer_arg = nullptr;
    uintptr_t idle_ms = 0;                                // 0: no idle time-out
    tarvex_dsi_rest_gridftp_op_arg_t *download = nullptr; // else the body is read as JSON
    tarvex_dsi_rest_progress_t progress = nullptr;        // in place of the idle time-out's
    void *progress_arg = nullptr;
};

/* One request made with the stock callbacks, and what came of it. */
struct Exchange {
    tarvex_result_t result = TARVEX_SUCCESS;
    tarvex_result_t completed = 1; // what the complete callback was given
    int status = 0;
    uint64_t uploaded = 0, downloaded = 0;
    json_t *json = nullptr;

    explicit Exchange(const Request &r)
    {
        KeyArray query(r.query), headers(r.headers);
        tarvex_dsi_rest_response_arg_t record{};
        tarvex_dsi_rest_callbacks_t callbacks{};
        callbacks.response_callback = tarvex_dsi_rest_response;
        callbacks.response_callback_arg = &record;
        callbacks.data_write_callback = r.writer;
        callbacks.data_write_callback_arg = r.writer_arg;
        callbacks.data_read_callback =
            r.download ? tarvex_dsi_rest_read_gridftp_op : tarvex_dsi_rest_read_json;
        callbacks.data_read_callback_arg = r.download ? static_cast<void *>(r.download) : &json;
        callbacks.complete_callback = [](void *arg, tarvex_result_t outcome) {
            *static_cast<tarvex_result_t *>(arg) = outcome;
        };
        callbacks.complete_callback_arg = &completed;
        if (r.idle_ms != 0) {
            callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
            callbacks.progress_callback_arg = reinterpret_cast<void *>(r.idle_ms);
        }
        if (r.progress != nullptr) {
            callbacks.progress_callback = r.progress;
            callbacks.progress_callback_arg = r.progress_arg;
        }
        result = tarvex_dsi_rest_request(r.method, r.url.c_str(), query.or_null(),
                                         headers.or_null(), &callbacks);
        status = record.response_code;
        uploaded = record.request_bytes_uploaded;
        downloaded = record.response_bytes_downloaded;
        tarvex_dsi_rest_response_arg_clear(&record);
    }
    /* The exchange owns its result: the error, if any, goes with it. */
    ~Exchange()
    {
        json_decref(json);
        tarvex_error_discard(result);
    }
    int error_type() const
    {
        const tarvex_object_t *error = tarvex_error_peek(result);
        return error != nullptr ? tarvex_error_get_type(error) : 0;
    }
    bool retryable() const { return tarvex_dsi_rest_error_is_retryable(result); }
    std::string message() const
    {
        const tarvex_object_t *error = tarvex_error_peek(result);
        return error != nullptr ? tarvex_error_get_message(error) : "";
    }
    std::string cause() const
    {
        const tarvex_object_t *cause = tarvex_error_get_cause(tarvex_error_peek(result));
        return cause != nullptr ? tarvex_error_get_message(cause) : "";
    }
    std::string text(const char *key) const
    {
        const char *value = json_string_value(json_object_get(json, key));
        return value != nullptr ? value : "";
    }
    /* A request header as the echo route saw it ("-" when absent). */
    std::string echoed(const char *name) const
    {
        json_t *headers = json_object_get(json, "headers");
        const char *value = json_string_value(json_object_get(headers, name));
        return value != nullptr ? value : "-";
    }
};

inline tarvex_result_t test_failure(const char *message)
{
    return tarvex_error_put(tarvex_error_construct_error(nullptr, nullptr, 1, __FILE__, __func__,
                                                         __LINE__, "%s", message));
}

/* A server operation backed by memory: writes land in `sink` at their
 * offsets, reads serve `source`.  Each
 * buffer is touched only on its completion's own thread, and completions
 * come in no particular order. */
class FakeOp {
public:
    std::string source;
    int fail_write = -1; // the n-th write (from 0) fails
    bool stall_reads = false;         // reads complete only when the FakeOp goes
    std::atomic<bool> stalled{false}; // a stalled read is waiting

    std::atomic<uint64_t> recvd = 0; // as reported by update_bytes_recvd
    std::mutex mutex;                              // guards what follows
    std::string sink;
    int writes = 0;

    tarvex_gfs_operation_t op = tarvex_gfs_operation_create(provider(), this);
    ~FakeOp()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            going_ = true;
        }
        gone_.notify_all();
        for (auto &thread : threads_)
            thread.join();
        tarvex_gfs_operation_destroy(op);
    }

private:
    static tarvex_result_t write(void *ctx, tarvex_gfs_operation_t op, tarvex_byte_t *buffer,
                                 tarvex_size_t length, tarvex_off_t offset, int,
                                 tarvex_gridftp_server_write_cb_t callback, void *user_arg)
    {
        auto *f = static_cast<FakeOp *>(ctx);
        std::lock_guard<std::mutex> lock(f->mutex);
        f->threads_.emplace_back([=] {
            std::unique_lock<std::mutex> sink_lock(f->mutex);
            bool fail = f->writes++ == f->fail_write;
            if (!fail) {
                f->sink.resize(std::max(f->sink.size(), size_t(offset) + length));
                memcpy(f->sink.data() + offset, buffer, length);
            }
            sink_lock.unlock();
            callback(op, fail ? test_failure("data channel closed") : TARVEX_SUCCESS, buffer,
                     length, user_arg);
        });
        return TARVEX_SUCCESS;
    }

    static tarvex_result_t read(void *ctx, tarvex_gfs_operation_t op, tarvex_byte_t *buffer,
                                tarvex_size_t length, tarvex_gridftp_server_read_cb_t callback,
                                void *user_arg)
    {
        auto *f = static_cast<FakeOp *>(ctx);
        std::lock_guard<std::mutex> lock(f->mutex);
        size_t offset = f->position_;
        size_t n = std::min(size_t(length), f->source.size() - offset);
        f->position_ += n;
        f->threads_.emplace_back([=] {
            if (f->stall_reads) {
                std::unique_lock<std::mutex> stall(f->mutex);
                f->stalled = true;
                f->gone_.wait(stall, [f] { return f->going_; });
            }
            // Bytes of a file into a data buffer: no string to terminate.
            // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
            memcpy(buffer, f->source.data() + offset, n);
            callback(op, TARVEX_SUCCESS, buffer, n, tarvex_off_t(offset), n == 0, user_arg);
        });
        return TARVEX_SUCCESS;
    }

    // A function, not a static member: its lambdas use FakeOp's members,
    // which only a member function's body may do before the class is complete.
    static const tarvex_gfs_operation_provider_t *provider()
    {
        static const tarvex_gfs_operation_provider_t p = [] {
            tarvex_gfs_operation_provider_t built{};
            built.register_read = read;
            built.register_write = write;
            built.update_bytes_recvd = [](void *ctx, tarvex_off_t length) {
                static_cast<FakeOp *>(ctx)->recvd += uint64_t(length);
            };
            built.get_block_size = [](void *, tarvex_size_t *size) {
                *size = tarvex_size_t{256} * 1024;
            };
            return built;
        }();
        return &p;
    }

    size_t position_ = 0; // of the next read
    std::vector<std::thread> threads_;
    bool going_ = false;
    std::condition_variable gone_;
};

/* Lower-case hex SHA-1, as the server's log and /sink give it. */
inline std::string sha1_hex(const std::string &data)
{
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(data.data()), data.size(), digest);
    char text[2 * SHA_DIGEST_LENGTH + 1];
    for (size_t i = 0; i < SHA_DIGEST_LENGTH; i++)
        snprintf(text + 2 * i, 3, "%02x", digest[i]);
    return text;
}

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
