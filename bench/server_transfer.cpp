// Moves a 1 GiB file each way through tarvex-gridftp-server and the posix
// plug-in with curl (RETR and STOR), and copies the same file locally with
// cp in the same run, for comparison.  Prints:
//   server_transfer: retr_MBps=<a> stor_MBps=<b> cp_MBps=<c> ratio_retr=<a/c> ratio_stor=<b/c>
//
// usage: server_transfer [SIZE_MIB] (default 1024); files go to $TMPDIR or /tmp.
// Each way is timed three times and the best time counts (see below).
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int rounds = 3;

std::string tmp_dir()
{
    const char *t = getenv("TMPDIR");
    std::string tmpl = std::string(t != nullptr && *t != '\0' ? t : "/tmp") + "/tarvex-bench-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        perror("mkdtemp");
        exit(1);
    }
    return buf.data();
}

bool write_file(const std::string &path, long long size)
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

// Runs a command, returns its wall-clock seconds (negative on failure).
double timed(const std::vector<std::string> &args)
{
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        std::vector<char *> argv;
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? s : -1;
}

long long file_size(const std::string &path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

bool same_content(const std::string &a, const std::string &b)
{
    return timed({"cmp", "-s", a, b}) >= 0;
}

} // namespace

int main(int argc, char **argv)
{
    long long mib = argc > 1 ? atoll(argv[1]) : 1024;
    if (mib <= 0) {
        fprintf(stderr, "usage: server_transfer [SIZE_MIB]\n");
        return 2;
    }
    long long size = mib * 1024 * 1024;
    std::string dir = tmp_dir();
    std::string root = dir + "/root";
    mkdir(root.c_str(), 0755);
    std::string src = root + "/source.bin";
    if (!write_file(src, size)) {
        fprintf(stderr, "server_transfer: cannot write %s\n", src.c_str());
        return 1;
    }
    std::string cfg = dir + "/config.json";
    std::ofstream(cfg) << "{\"root\": \"" << root << "\"}";
    std::string port_file = dir + "/port";

    pid_t server = fork();
    if (server == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        execl(TARVEX_SERVER_BIN, TARVEX_SERVER_BIN, "--port", "0", "--dsi", "posix", "--dsi-path",
              TARVEX_LIB_DIR, "--anonymous-map", "--foreground", "--port-file", port_file.c_str(),
              "--config-file", ("config=" + cfg).c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int port = 0;
    for (int i = 0; i < 200 && port == 0; ++i) {
        std::ifstream(port_file) >> port;
        if (port == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    int rc = 0;
    if (port == 0) {
        fprintf(stderr, "server_transfer: the server did not start\n");
        rc = 1;
    } else {
        std::string base = "ftp://127.0.0.1:" + std::to_string(port) + "/";
        std::string cp_out = dir + "/cp.bin";
        std::string retr_out = dir + "/retr.bin";
        std::string stored = root + "/stored.bin";
        // The machine is shared and the page cache's write-back comes and
        // goes: each way is timed several times, interleaved, each after a
        // sync, and the best of each counts.
        double cp_s = 0;
        double retr_s = 0;
        double stor_s = 0;
        bool ok = true;
        auto best = [](double &keep, double s) {
            if (s > 0 && (keep == 0 || s < keep))
                keep = s;
            return s > 0;
        };
        for (int round = 0; round < rounds && ok; ++round) {
            bool last = round + 1 == rounds;
            sync();
            ok = best(cp_s, timed({"cp", src, cp_out}));
            sync();
            ok = ok && best(retr_s, timed({"curl", "-sS", "-o", retr_out, base + "source.bin"}));
            sync();
            ok = ok && best(stor_s, timed({"curl", "-sS", "-T", src, base + "stored.bin"}));
            if (ok && last)
                ok = file_size(retr_out) == size && file_size(stored) == size &&
                     same_content(src, retr_out) && same_content(src, stored);
            unlink(cp_out.c_str());
            unlink(retr_out.c_str());
            unlink(stored.c_str());
        }
        if (!ok) {
            fprintf(stderr, "server_transfer: a transfer failed or its bytes differ\n");
            rc = 1;
        } else {
            double mb = static_cast<double>(size) / 1e6;
            double a = mb / retr_s;
            double b = mb / stor_s;
            double c = mb / cp_s;
            printf("server_transfer: %lld MiB each way, best of %d rounds\n", mib, rounds);
            printf("server_transfer: retr_MBps=%.1f stor_MBps=%.1f cp_MBps=%.1f ratio_retr=%.2f "
                   "ratio_stor=%.2f\n",
                   a, b, c, a / c, b / c);
        }
    }
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    timed({"rm", "-rf", dir});
    return rc;
}
