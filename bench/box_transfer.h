/*
 * Helpers of the transfer benchmarks (box_transfer.cpp, box_wan.cpp,
 * server_transfer.cpp): a scratch folder, a file of incompressible bytes,
 * child processes run with a timer, the server started on a free port, a
 * few /proc readings, and the scratch folder a benchmark's run lives in.  Header-only: each benchmark is one program.
 */
#ifndef TARVEX_BENCH_BOX_TRANSFER_H
#define TARVEX_BENCH_BOX_TRANSFER_H

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarvex_bench {

using Env = std::vector<std::pair<std::string, std::string>>;

/* A new folder under $TMPDIR (or /tmp); exits the program when it cannot. */
inline std::string scratch_dir(const char *prefix)
{
    const char *t = getenv("TMPDIR");
    std::string tmpl = std::string(t != nullptr && *t != '\0' ? t : "/tmp") + "/" + prefix +
                       "-XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr) {
        perror("mkdtemp");
        exit(1);
    }
    return tmpl;
}

/* `size` bytes of a xorshift sequence: nothing on the way can compress
 * them or find them all zero. */
inline bool write_random_file(const std::string &path, long long size)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return false;
    std::vector<unsigned char> block(1 << 20);
    unsigned long long x = 88172645463325252ull;
    for (long long done = 0; done < size;) {
        for (size_t i = 0; i < block.size(); i += 8) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            memcpy(&block[i], &x, 8);
        }
        size_t n = static_cast<size_t>(std::min<long long>(size - done, static_cast<long long>(block.size())));
        if (write(fd, block.data(), n) != static_cast<ssize_t>(n)) {
            close(fd);
            return false;
        }
        done += static_cast<long long>(n);
    }
    return close(fd) == 0;
}

/* Starts a program with `env` added to ours; its standard output goes to
 * `out` (a path) when given, its standard error to /dev/null when `quiet`. */
inline pid_t spawn(const std::vector<std::string> &args, const Env &env = {},
                   const std::string &out = "", bool quiet = false)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (const auto &[name, value] : env)
        setenv(name.c_str(), value.c_str(), 1);
    if (!out.empty()) {
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0)
            dup2(fd, STDOUT_FILENO);
    }
    if (quiet) {
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0)
            dup2(null, STDERR_FILENO);
    }
    std::vector<char *> argv;
    argv.reserve(args.size() + 1);
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

/* Waits for a child; whether it exited with 0, and the CPU seconds (user
 * and system) it used when `cpu` is given. */
inline bool exited_well(pid_t pid, double *cpu = nullptr)
{
    int status = 0;
    rusage usage{};
    bool ok = wait4(pid, &status, 0, &usage) == pid && WIFEXITED(status) &&
              WEXITSTATUS(status) == 0;
    if (cpu != nullptr)
        *cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return ok;
}

/* Runs a program to its end; its wall-clock seconds, or -1 when it failed. */
inline double timed(const std::vector<std::string> &args, const std::string &out = "",
                    double *cpu = nullptr)
{
    auto t0 = std::chrono::steady_clock::now();
    bool ok = exited_well(spawn(args, {}, out), cpu);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return ok ? s : -1;
}

/* A file's text, "" when it cannot be read.  Plain read(2): a /proc file
 * of a process that ends while it is read fails with ESRCH, which a
 * stream's buffer reports by throwing. */
inline std::string read_text(const std::string &path)
{
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    close(fd);
    return text;
}

/* tarvex-gridftp-server on a free loopback port, stopped at destruction. */
class Server {
public:
    Server(const std::string &dir, std::vector<std::string> args, const Env &env)
    {
        std::string port_file = dir + "/server.port";
        args.insert(args.begin(), {TARVEX_SERVER_BIN, "--port", "0", "--bind", "127.0.0.1",
                                   "--anonymous-map", "--foreground", "--port-file", port_file});
        pid_ = spawn(args, env, "", true);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (port_ == 0 && std::chrono::steady_clock::now() < deadline &&
               waitpid(pid_, nullptr, WNOHANG) == 0) {
            port_ = atoi(read_text(port_file).c_str());
            if (port_ == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ~Server()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /* 0 when the server did not start. */
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string url(const std::string &path) const
    {
        return "ftp://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    pid_t pid_ = -1;
    int port_ = 0;
};

/* A "Vm...:" figure of /proc/PID/status in kB, or -1. */
inline long status_kb(pid_t pid, const char *field)
{
    std::string status = read_text("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find(std::string("\n") + field);
    if (at == std::string::npos)
        return -1;
    return strtol(status.c_str() + at + 1 + strlen(field), nullptr, 10);
}

/* CPU seconds a process has used, with those of its children that ended
 * and were waited for when `children` (the server's sessions); 0 when it
 * cannot be read. */
inline double cpu_seconds(pid_t pid, bool children)
{
    std::string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return 0;
    // After the command: state, then fields 4 to 17 of proc(5); utime,
    // stime, cutime and cstime are 14 to 17.
    unsigned long long f[14] = {};
    char state = 0;
    if (sscanf(stat.c_str() + close + 1,
               " %c %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu", &state,
               &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &f[6], &f[7], &f[8], &f[9], &f[10],
               &f[11], &f[12], &f[13]) != 15)
        return 0;
    unsigned long long ticks = f[10] + f[11] + (children ? f[12] + f[13] : 0);
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/* The processes whose parent is `parent` (the server's sessions). */
inline std::vector<pid_t> children_of(pid_t parent)
{
    std::vector<pid_t> found;
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (const dirent *e = readdir(proc)) {
        pid_t pid = atoi(e->d_name);
        if (pid <= 0)
            continue;
        // "pid (comm) state ppid ...": comm may hold spaces, so read after
        // the last ')'.
        std::string stat = read_text("/proc/" + std::string(e->d_name) + "/stat");
        size_t close = stat.rfind(')');
        if (close == std::string::npos)
            continue;
        char state = 0;
        int ppid = 0;
        if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == parent)
            found.push_back(pid);
    }
    closedir(proc);
    return found;
}

/* Watches the server's session processes while a transfer runs and keeps
 * the highest VmHWM seen (the kernel's own peak, so sampling only has to
 * catch it before the process ends) and which process it was. */
class SessionPeak {
public:
    explicit SessionPeak(pid_t server) : thread_([this, server] {
        while (!stop_) {
            for (pid_t pid : children_of(server)) {
                long kb = status_kb(pid, "VmHWM:");
                if (kb > peak_kb_) {
                    peak_kb_ = kb;
                    pid_ = pid;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }) {}
    ~SessionPeak() { stop(); }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    long peak_kb() const { return peak_kb_; }
    pid_t pid() const { return pid_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> peak_kb_{0};
    std::atomic<pid_t> pid_{0};
    std::thread thread_;
};

/* Runs BENCH in a new scratch folder under PREFIX, which is removed
 * afterwards whatever happens; a failure NAME prints is 1. */
template <typename Bench>
int in_scratch(const char *name, const char *prefix, Bench bench)
{
    std::string dir = scratch_dir(prefix);
    int rc = 1;
    try {
        rc = bench(dir);
    } catch (const std::exception &e) {
        fprintf(stderr, "%s: %s\n", name, e.what());
    }
    timed({"rm", "-rf", dir});
    return rc;
}

/* Bytes as lower-case hexadecimal, as Box shows digests. */
inline std::string hex(const unsigned char *bytes, size_t n)
{
    std::string text;
    char pair[3];
    for (size_t i = 0; i < n; i++) {
        snprintf(pair, sizeof pair, "%02x", bytes[i]);
        text += pair;
    }
    return text;
}

/* The "id" of an item's JSON record (the emulator's), or "". */
inline std::string json_id(const std::string &item)
{
    size_t at = item.find("\"id\"");
    size_t open = at == std::string::npos ? at : item.find('"', item.find(':', at));
    size_t close = open == std::string::npos ? open : item.find('"', open + 1);
    return close == std::string::npos ? "" : item.substr(open + 1, close - open - 1);
}

inline double mbps(long long bytes, double seconds)
{
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
}

/* VALUES with DECIMALS places, one after the other, as the rounds gave
 * them. */
inline std::string spread(const std::vector<double> &values, int decimals)
{
    std::string text;
    char item[32];
    for (double v : values) {
        if (!text.empty())
            text += ' ';
        snprintf(item, sizeof item, "%.*f", decimals, v);
        text += item;
    }
    return text;
}

/* The figures of one measure over the rounds: the best counts, the others
 * show how much the machine's load moved it. */
class Rounds {
public:
    void add(double value) { values_.push_back(value); }
    double best() const
    {
        return values_.empty() ? 0 : *std::max_element(values_.begin(), values_.end());
    }
    std::string spread() const { return tarvex_bench::spread(values_, 0); }

private:
    std::vector<double> values_;
};

} // namespace tarvex_bench

#endif
