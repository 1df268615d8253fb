/*
 * For the tests and the benchmark of pacing across hosts:
 *
 * - a Redis server of the test's own for the shared pacing store: on a
 *   free loopback port, with no persistence, in a scratch directory, with
 *   direct commands to look at or tamper with its keys;
 * - forked processes standing for hosts, each with a home of its own (so
 *   no pacing file is shared), that take paced slots for one
 *   Box user and record each in memory shared with the test.
 */
#ifndef TARVEX_TEST_BOX_PACING_SUPPORT_H
#define TARVEX_TEST_BOX_PACING_SUPPORT_H

#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "box_wait.h"
#include "config.h"
#include "pacing.h"
#include "retry.h"

namespace tarvex_test {

/* Whether a program is on the PATH. */
inline bool have_program(const std::string &name)
{
    return system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

/* A loopback port nobody listens on right now. */
inline int free_loopback_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length) != 0) {
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("no free loopback port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

struct redis_reply_deleter {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using redis_reply = std::unique_ptr<redisReply, redis_reply_deleter>;

class redis_server {
public:
    /* Starts at once; `password` empty for none. */
    explicit redis_server(std::string password = "") : password_(std::move(password))
    {
        char name[] = "/tmp/box-redis-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no scratch directory");
        dir_ = name;
        /* Another program may take the port between the probe and the
         * server's bind: then the server ends, and another port is tried. */
        for (int attempt = 0; attempt < 5 && pid_ <= 0; attempt++) {
            port_ = free_loopback_port();
            start();
        }
        if (pid_ <= 0)
            throw std::runtime_error("redis-server did not start: see " + dir_ + "/redis.log");
    }
    ~redis_server()
    {
        kill_now();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    redis_server(const redis_server &) = delete;
    redis_server &operator=(const redis_server &) = delete;

    int port() const { return port_; }
    std::string url(const std::string &userinfo = "", int db = 0) const
    {
        return "redis://" + userinfo + "127.0.0.1:" + std::to_string(port_) + "/" +
               std::to_string(db);
    }

    /* Killed as a crash would: no goodbye to its clients. */
    void kill_now()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

    /* One command on a connection of its own (logged in and in `db`);
     * none when the server cannot be reached. */
    redis_reply command(const std::vector<std::string> &words, int db = 0) const
    {
        std::unique_ptr<redisContext, void (*)(redisContext *)> context(
            redisConnect("127.0.0.1", port_), redisFree);
        if (context == nullptr || context->err != 0)
            return nullptr;
        if (!password_.empty())
            freeReplyObject(redisCommand(context.get(), "AUTH %s", password_.c_str()));
        if (db != 0)
            freeReplyObject(redisCommand(context.get(), "SELECT %d", db));
        std::vector<const char *> argv;
        std::vector<size_t> lengths;
        for (const std::string &word : words) {
            argv.push_back(word.data());
            lengths.push_back(word.size());
        }
        return redis_reply(static_cast<redisReply *>(redisCommandArgv(
            context.get(), (int)argv.size(), argv.data(), lengths.data())));
    }

private:
    /* Runs the server and waits until it answers (any answer: without the
     * password it is a refusal) or ends. */
    void start()
    {
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); /* a crashed test leaves no server */
            std::string port = std::to_string(port_);
            std::string log = dir_ + "/redis.log";
            std::vector<const char *> argv = {
                "redis-server", "--port", port.c_str(), "--bind", "127.0.0.1",
                "--save", "", "--appendonly", "no", "--dir", dir_.c_str(),
                "--logfile", log.c_str(), "--daemonize", "no"};
            if (!password_.empty()) {
                argv.push_back("--requirepass");
                argv.push_back(password_.c_str());
            }
            argv.push_back(nullptr);
            execvp("redis-server", const_cast<char *const *>(argv.data()));
            _exit(127);
        }
        bool up = eventually([&] {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return true;
            }
            redisContext *context = redisConnect("127.0.0.1", port_);
            bool answers = false;
            if (context != nullptr && context->err == 0) {
                redisReply *reply = static_cast<redisReply *>(redisCommand(context, "PING"));
                answers = reply != nullptr;
                freeReplyObject(reply);
            }
            redisFree(context);
            return answers;
        });
        if (!up)
            kill_now();
    }

    std::string password_;
    std::string dir_;
    int port_ = 0;
    pid_t pid_ = -1;
};

/* The wall clock in microseconds: the same clock as the stamps of this
 * host's pacing files and of a store server on this machine. */
inline int64_t wall_us()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/* One paced call of a host. */
struct pacing_call {
    int64_t started_us; /* wall clock as the call began */
    int64_t ended_us;   /* and as it returned */
    int64_t stamp_us;
    int64_t cost_us; /* the call's time less the sleep it asked for */
    int64_t source;  /* tarvex_box_pacing_slot_t::source_t */
};

struct pacing_hosts_options {
    int hosts = 4;
    int calls = 200; /* per host */
    int per_second = 16;
    std::string store;         /* the policy's "pacing_store"; empty: none */
    unsigned debug_levels = 0; /* each host logs to host-N.log in the directory */
};

/*
 * Hosts that take slots for Box user "4242" as a session would: each reads
 * the policy and opens the user's API pacing state, then all start at
 * once on go() and record every slot.
 */
class pacing_hosts {
public:
    static constexpr int capacity = 4096; /* calls recorded per host */
    static constexpr int max_hosts = 8;

    pacing_hosts(const std::string &dir, pacing_hosts_options options)
        : options_(std::move(options)), dir_(dir), control_(2 + max_hosts),
          calls_(size_t{capacity} * max_hosts)
    {
        if (options_.hosts > max_hosts)
            throw std::runtime_error("too many hosts");
        for (int h = 0; h < options_.hosts; h++)
            hosts_.push_back(std::make_unique<child>([this, h] { return host_main(h); }));
    }

    /* Releases the hosts once all are ready; false if they never are. */
    bool go()
    {
        if (!eventually([&] { return load(ready) == options_.hosts; }))
            return false;
        store(release, 1);
        return true;
    }

    int made(int host) const { return load(made_0 + host); }
    const pacing_call &call(int host, int i) const { return calls_[host * capacity + i]; }
    /* Every call of every host so far. */
    std::vector<pacing_call> all() const
    {
        std::vector<pacing_call> every;
        for (int h = 0; h < options_.hosts; h++)
            for (int i = 0; i < made(h); i++)
                every.push_back(call(h, i));
        return every;
    }

    /* Waits up to `timeout` for every host to make its calls; true when
     * all of them ended well. */
    bool finished(std::chrono::milliseconds timeout)
    {
        eventually(
            [&] {
                for (int h = 0; h < options_.hosts; h++)
                    if (made(h) < options_.calls)
                        return false;
                return true;
            },
            timeout);
        bool well = true;
        for (auto &host : hosts_)
            well = host->status() == 0 && well;
        return well;
    }

    std::string home(int host) const { return dir_ + "/host-" + std::to_string(host); }

private:
    enum { ready, release, made_0 };

    int load(int i) const
    {
        return std::atomic_ref<int>(const_cast<int &>(control_[i])).load();
    }
    void store(int i, int value) { std::atomic_ref<int>(control_[i]).store(value); }

    int host_main(int h)
    {
        static std::string retry_path;
        std::filesystem::create_directories(home(h));
        retry_path = home(h) + "/box-r";
        tarvex_i_box_retry_path = retry_path.c_str();
        if (options_.debug_levels != 0) {
            tarvex_i_TARVEX_BOX_debug_handle = tarvex_debug_handle_t{};
            tarvex_i_TARVEX_BOX_debug_handle.levels = options_.debug_levels;
            std::string log = dir_ + "/host-" + std::to_string(h) + ".log";
            tarvex_i_TARVEX_BOX_debug_handle.file = fopen(log.c_str(), "w");
            setvbuf(tarvex_i_TARVEX_BOX_debug_handle.file, nullptr, _IOLBF, 0);
        }
        std::string policy =
            options_.store.empty() ? "{}" : R"({"pacing_store": ")" + options_.store + "\"}";
        int rate = options_.per_second;
        if (tarvex_box_config_parse_json(policy.c_str(), &rate) != TARVEX_SUCCESS)
            return 2;
        tarvex_box_retry_t retry{};
        tarvex_i_box_retry_state_create("4242", options_.per_second, &retry);
        std::atomic_ref<int>(control_[ready]).fetch_add(1);
        if (!eventually([&] { return load(release) == 1; }))
            return 3;
        for (int i = 0; i < options_.calls && i < capacity; i++) {
            auto begun = std::chrono::steady_clock::now();
            int64_t started = wall_us();
            tarvex_box_pacing_slot_t slot = tarvex_box_pace(&retry);
            int64_t took = std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::steady_clock::now() - begun)
                               .count();
            calls_[h * capacity + i] = {started, wall_us(), slot.stamp_us,
                                        took - slot.waited_us, slot.source};
            std::atomic_ref<int>(control_[made_0 + h]).store(i + 1);
        }
        tarvex_i_box_retry_state_destroy(&retry);
        return 0;
    }

    pacing_hosts_options options_;
    std::string dir_;
    shared_array<int> control_;
    shared_array<pacing_call> calls_;
    std::vector<std::unique_ptr<child>> hosts_;
};

} // namespace tarvex_test

#endif
