// Moves a 1 GiB file each way through tarvex-gridftp-server and the posix
// plug-in with curl (RETR into a file and into /dev/null, STOR from the
// file), and in the same run copies the same file locally through user
// space (read and write with a 1 MiB buffer, as the server's path does:
// cp's in-kernel copy would be no fair yardstick).  Prints first:
//
//   server_transfer: retr_MBps=<a> stor_MBps=<b> copy_MBps=<c> ratio_retr=<a/c> ratio_stor=<b/c> retr_null_MBps=<d>
//
// then a line starting with "#" with every round's figures.  retr and stor
// write a file on the same disk as the copy does, so their ratios compare
// like with like; retr_null is the download alone, without the disk.
//
// usage: server_transfer [SIZE_MIB] (default 1024); files go to $TMPDIR or /tmp.
// Each way is timed three times, interleaved, each after a sync; the best
// time counts.
#include "box_transfer.h"

using namespace tarvex_bench;

namespace {

constexpr int rounds = 3;

// The user-space copy: its seconds, or -1 when it failed.
double copy_seconds(const std::string &from, const std::string &to)
{
    auto t0 = std::chrono::steady_clock::now();
    int in = open(from.c_str(), O_RDONLY);
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = in >= 0 && out >= 0;
    std::vector<char> buffer(1 << 20);
    while (ok) {
        ssize_t n = read(in, buffer.data(), buffer.size());
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        ok = write(out, buffer.data(), static_cast<size_t>(n)) == n;
    }
    if (in >= 0)
        close(in);
    if (out >= 0 && close(out) != 0)
        ok = false;
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return ok ? s : -1;
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
    std::string dir = scratch_dir("tarvex-bench");
    std::string root = dir + "/root";
    mkdir(root.c_str(), 0755);
    std::string src = root + "/source.bin";
    if (!write_random_file(src, size)) {
        fprintf(stderr, "server_transfer: cannot write %s\n", src.c_str());
        return 1;
    }
    std::string cfg = dir + "/config.json";
    std::ofstream(cfg) << "{\"root\": \"" << root << "\"}";

    int rc = 0;
    {
        Server server(dir, {"--dsi", "posix", "--dsi-path", TARVEX_LIB_DIR, "--config-file",
                            "config=" + cfg},
                      {});
        if (server.port() == 0) {
            fprintf(stderr, "server_transfer: the server did not start\n");
            rc = 1;
        } else {
            std::string copy_out = dir + "/copy.bin";
            std::string retr_out = dir + "/retr.bin";
            std::string stored = root + "/stored.bin";
            // The machine is shared and the page cache's write-back comes and
            // goes: each way is timed several times, interleaved, each after
            // a sync, and the best of each counts.
            Rounds copy, retr, stor, retr_null;
            bool ok = true;
            auto add = [&](Rounds &r, double s) {
                ok = ok && s > 0;
                if (ok)
                    r.add(mbps(size, s));
            };
            for (int round = 0; round < rounds && ok; ++round) {
                bool last = round + 1 == rounds;
                sync();
                add(copy, copy_seconds(src, copy_out));
                sync();
                add(retr, timed({"curl", "-sS", "-o", retr_out, server.url("/source.bin")}));
                sync();
                add(stor, timed({"curl", "-sS", "-T", src, server.url("/stored.bin")}));
                add(retr_null, timed({"curl", "-sS", "-o", "/dev/null", server.url("/source.bin")}));
                if (ok && last)
                    ok = file_size(retr_out) == size && file_size(stored) == size &&
                         same_content(src, copy_out) && same_content(src, retr_out) &&
                         same_content(src, stored);
                unlink(copy_out.c_str());
                unlink(retr_out.c_str());
                unlink(stored.c_str());
            }
            if (!ok) {
                fprintf(stderr, "server_transfer: a transfer failed or its bytes differ\n");
                rc = 1;
            } else {
                double a = retr.best(), b = stor.best(), c = copy.best();
                printf("server_transfer: retr_MBps=%.1f stor_MBps=%.1f copy_MBps=%.1f "
                       "ratio_retr=%.2f ratio_stor=%.2f retr_null_MBps=%.1f\n",
                       a, b, c, a / c, b / c, retr_null.best());
                printf("# %lld MiB each way, MB/s in each of %d rounds: copy %s; retr %s; stor %s; "
                       "retr_null %s\n",
                       mib, rounds, copy.spread().c_str(), retr.spread().c_str(),
                       stor.spread().c_str(), retr_null.spread().c_str());
            }
        }
    }
    timed({"rm", "-rf", dir});
    return rc;
}
