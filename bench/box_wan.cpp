/*
 * A distant Box: transfers and a large listing through tarvex-gridftp-server
 * and the Box plug-in with curl, against the Box emulator's WAN profile
 * (every request waits latency_ms L before it is served, each upload part
 * and commit part_processing_ms T more, and every connection moves bodies
 * at bandwidth_bps B each way), once with the policy's defaults and once
 * with the keys for a distant Box:
 *
 *   get_s / get_streams_s    RETR of a SIZE file, download_streams 1 / 4
 *   put_s / put_inflight_s   STOR of a SIZE file announced with ALLO,
 *                            upload_parts_in_flight 1 / 4
 *   list_s / list_1000_s     LIST of a folder of 10,000 files,
 *                            list_page_size 300 / 1000
 *   peak_rss_mb              the highest VmHWM of a session process during
 *                            the four-stream download and the four-parts
 *                            upload
 *
 *   box_wan: latency_ms=<L> conn_MBps=<B/1e6> get_s= get_streams_s= get_floor_s= put_s= put_inflight_s= put_floor_s= list_s= list_1000_s= peak_rss_mb=
 *
 * The floors are what the profile allows four streams or four parts in
 * flight, counting the requests that must follow one another:
 *
 *   get_floor_s = 3 L + ceil(R / 4) (L + SIZE / R / B)
 *     the log-in's root listing, the listing of the file's folder and the
 *     content request, one after another; then the R ranges of 16 MiB
 *     (the largest the plug-in asks for: its memory bound), each stream
 *     fetching ceil(R / 4) of them one after another, each a round trip and
 *     its bytes at B.
 *
 *   put_floor_s = 3 L + ceil(P / 4) (L + T + PART / B) + (L + T) + L
 *     the root listing, the folder listing and the upload session's
 *     creation; then the P parts of PART bytes (Box's part size, 8 MiB),
 *     four at a time, each a round trip, its body at B and Box's
 *     processing; then the commit (a round trip and the processing) and
 *     the MD5 property (a round trip).
 *
 * With the defaults (L 100 ms, B 50 MB/s, T 50 ms, 1 GiB): R = 64 and
 * get_floor_s = 0.3 + 16 x (0.1 + 0.336) = 7.27 s; P = 128 and put_floor_s
 * = 0.3 + 32 x (0.15 + 0.168) + 0.15 + 0.1 = 10.73 s.  The one-stream
 * figures have no floor of their own: get_s is about 3 L + SIZE / B (21.8
 * s), put_s about 3 L + P (L + T + PART / B) + 2 L + T (41.1 s).
 *
 * The policy's pace is raised to 1000 requests a second so that pacing is
 * not the bound.  Every round runs the six measures one after the other;
 * the best of the rounds counts.  Each upload is checked against Box's
 * record (size, SHA-1, MD5 property) and deleted, each download's size
 * against the file's.  Lines starting with "#" follow: every round's
 * figures, the targets, the CPU seconds of curl, the session and the
 * emulator for each measure, and, from the emulator's request log, where
 * the best four-stream download's and four-parts upload's time went: the
 * requests before the first range or part, how many ranges or parts were
 * open on average, how long each took against the profile's own time for
 * it, and what followed the last.
 *
 * usage: box_wan [SIZE_MIB [ROUNDS [LATENCY_MS [BANDWIDTH_BPS [PROCESSING_MS]]]]]
 * (default 1024 3 100 50000000 50); files go to $TMPDIR or /tmp.
 */
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <cmath>
#include <sstream>

#include "box_emulator.h"
#include "box_transfer.h"

using namespace tarvex_bench;

namespace {

constexpr long long range_size = 16ll << 20; /* the plug-in's largest range */
constexpr long long part_size = 8ll << 20;   /* the emulator's, as Box's */
constexpr int folder_items = 10000;

struct Profile {
    long long size = 1ll << 30;
    int rounds = 3;
    int latency_ms = 100;
    long long bandwidth_bps = 50000000;
    int processing_ms = 50;
    std::string dir;

    double latency() const { return latency_ms / 1e3; }
    double processing() const { return processing_ms / 1e3; }
    double bandwidth() const { return static_cast<double>(bandwidth_bps); }
    long long ranges() const { return (size + range_size - 1) / range_size; }
    long long parts() const { return (size + part_size - 1) / part_size; }

    double get_floor() const
    {
        double per_stream = std::ceil(static_cast<double>(ranges()) / 4);
        return 3 * latency() +
               per_stream * (latency() + static_cast<double>(size) /
                                             static_cast<double>(ranges()) / bandwidth());
    }
    double put_floor() const
    {
        double per_slot = std::ceil(static_cast<double>(parts()) / 4);
        return 3 * latency() +
               per_slot * (latency() + processing() +
                           static_cast<double>(part_size) / bandwidth()) +
               (latency() + processing()) + latency();
    }
};

/* SHA-1 and MD5 of a file, as Box's record must show them. */
bool file_digests(const std::string &path, std::string *sha1, std::string *md5)
{
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    SHA_CTX s;
    MD5_CTX m;
    SHA1_Init(&s);
    MD5_Init(&m);
    std::vector<unsigned char> block(1 << 20);
    ssize_t n;
    while ((n = read(fd, block.data(), block.size())) > 0) {
        SHA1_Update(&s, block.data(), static_cast<size_t>(n));
        MD5_Update(&m, block.data(), static_cast<size_t>(n));
    }
    close(fd);
    unsigned char so[SHA_DIGEST_LENGTH], mo[MD5_DIGEST_LENGTH];
    SHA1_Final(so, &s);
    MD5_Final(mo, &m);
    *sha1 = hex(so, sizeof so);
    *md5 = hex(mo, sizeof mo);
    return n == 0;
}

/* CPU seconds of one measure. */
struct Cpu {
    double client = 0, session = 0, emulator = 0;
};

/* One measure over the rounds: seconds of each, CPU of the best. */
struct Measure {
    std::vector<double> seconds;
    Cpu best_cpu;
    std::vector<tarvex_test::BoxEmulator::LogEntry> best_log;
    long peak_kb = 0; /* the session's highest resident size in any round */

    double best() const
    {
        return seconds.empty() ? -1 : *std::min_element(seconds.begin(), seconds.end());
    }
    std::string spread() const { return tarvex_bench::spread(seconds, 2); }
};

struct Bench {
    const Profile &p;
    tarvex_test::BoxEmulator &emulator;
    Server &plain;  /* the policy's defaults */
    Server &distant; /* the keys for a distant Box */
    std::string source, sha1, md5;

    /* Runs a curl, waits for its session to end, and keeps its time, CPU
     * and the emulator's log when it is the best so far; false when it
     * failed. */
    bool timed_curl(Measure &m, Server &server, const std::vector<std::string> &args,
                    const std::string &out = "")
    {
        emulator.clear_log();
        double emulator0 = cpu_seconds(emulator.pid(), false);
        double server0 = cpu_seconds(server.pid(), true);
        double client = 0;
        SessionPeak peak(server.pid());
        double s = timed(args, out, &client);
        peak.stop();
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!children_of(server.pid()).empty() && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (s < 0)
            return false;
        m.peak_kb = std::max(m.peak_kb, peak.peak_kb());
        if (m.seconds.empty() || s < m.best()) {
            m.best_cpu = {client, cpu_seconds(server.pid(), true) - server0,
                          cpu_seconds(emulator.pid(), false) - emulator0};
            m.best_log = emulator.log();
        }
        m.seconds.push_back(s);
        return true;
    }
};

struct Figures {
    Measure get, get_streams, put, put_inflight, list, list_1000;
};

bool download(Bench &b, Measure &m, Server &server)
{
    std::string says = b.p.dir + "/curl.out";
    if (!b.timed_curl(m, server,
                      {"curl", "-sS", "-u", "bench:bench", "-o", "/dev/null", "-w",
                       "%{size_download}", server.url("/bench/download.bin")},
                      says))
        return false;
    if (atoll(read_text(says).c_str()) != b.p.size) {
        fprintf(stderr, "box_wan: a RETR was cut short\n");
        return false;
    }
    return true;
}

/* The stored file must be the one sent; it is deleted then. */
bool upload(Bench &b, Measure &m, Server &server, const std::string &name)
{
    std::string target = "/bench/" + name;
    if (!b.timed_curl(m, server,
                      {"curl", "-sS", "-u", "bench:bench", "-Q",
                       "ALLO " + std::to_string(b.p.size), "-T", b.source, server.url(target)},
                      "")) {
        fprintf(stderr, "box_wan: STOR of %s failed\n", target.c_str());
        return false;
    }
    for (const auto &e : b.emulator.tree()) {
        if (e.path != target)
            continue;
        if (static_cast<long long>(e.size) != b.p.size || e.sha1 != b.sha1 || e.md5 != b.md5) {
            fprintf(stderr, "box_wan: %s differs from the file sent\n", target.c_str());
            return false;
        }
        return timed({"curl", "-sS", "-f", "-X", "DELETE", "-H",
                      "Authorization: Bearer test-token",
                      b.emulator.api_base() + "/2.0/files/" + json_id(b.emulator.item(target))}) >= 0;
    }
    fprintf(stderr, "box_wan: %s is not in Box\n", target.c_str());
    return false;
}

bool listing(Bench &b, Measure &m, Server &server)
{
    std::string out = b.p.dir + "/list.out";
    if (!b.timed_curl(m, server, {"curl", "-sS", "-u", "bench:bench", server.url("/bench/many/")},
                      out))
        return false;
    std::string text = read_text(out);
    long lines = std::count(text.begin(), text.end(), '\n');
    if (lines < folder_items) {
        fprintf(stderr, "box_wan: the listing showed %ld lines\n", lines);
        return false;
    }
    return true;
}

bool round(Bench &b, Figures &f, int n)
{
    return download(b, f.get, b.plain) && download(b, f.get_streams, b.distant) &&
           upload(b, f.put, b.plain, "plain-" + std::to_string(n) + ".bin") &&
           upload(b, f.put_inflight, b.distant, "inflight-" + std::to_string(n) + ".bin") &&
           listing(b, f.list, b.plain) && listing(b, f.list_1000, b.distant);
}

/* Where a transfer's time went, from the emulator's log of its requests:
 * `kind` picks the ranges or parts. */
template <class Kind>
void print_flow(const char *what, const Measure &m, Kind kind, double ideal_each)
{
    const auto &log = m.best_log;
    if (log.empty())
        return;
    double first = log.front().started, last = 0;
    double flow_start = -1, flow_end = 0, busy = 0, longest = 0;
    int count = 0, before = 0, after = 0;
    for (const auto &e : log) {
        first = std::min(first, e.started);
        last = std::max(last, e.ended);
        if (kind(e)) {
            flow_start = flow_start < 0 ? e.started : std::min(flow_start, e.started);
            flow_end = std::max(flow_end, e.ended);
            busy += e.ended - e.started;
            longest = std::max(longest, e.ended - e.started);
            count++;
        }
    }
    for (const auto &e : log)
        if (!kind(e))
            (e.started < flow_start ? before : after)++;
    if (count == 0)
        return;
    double span = flow_end - flow_start;
    printf("# %s (best, %.2f s by curl): %d requests before the first of %d in %.2f s from "
           "the emulator's first request; those %.2f s with %.2f open on average, each %.3f s "
           "(longest %.3f) against %.3f s of the profile's own; %d requests after them in "
           "%.2f s\n",
           what, m.best(), before, count, flow_start - first, span, busy / span, busy / count,
           longest, ideal_each, after, last - flow_end);
}

void print_figures(const Profile &p, const Figures &f)
{
    printf("box_wan: latency_ms=%d conn_MBps=%.1f get_s=%.2f get_streams_s=%.2f get_floor_s=%.2f "
           "put_s=%.2f put_inflight_s=%.2f put_floor_s=%.2f list_s=%.2f list_1000_s=%.2f "
           "peak_rss_mb=%.1f\n",
           p.latency_ms, p.bandwidth() / 1e6, f.get.best(), f.get_streams.best(), p.get_floor(),
           f.put.best(), f.put_inflight.best(), p.put_floor(), f.list.best(), f.list_1000.best(),
           std::max(f.get_streams.peak_kb, f.put_inflight.peak_kb) / 1024.0);
    printf("# %lld MiB, part_processing_ms=%d, %d rounds; seconds in each round: get %s; "
           "get_streams %s; put %s; put_inflight %s; list %s; list_1000 %s\n",
           p.size >> 20, p.processing_ms, p.rounds, f.get.spread().c_str(),
           f.get_streams.spread().c_str(), f.put.spread().c_str(),
           f.put_inflight.spread().c_str(), f.list.spread().c_str(),
           f.list_1000.spread().c_str());
    printf("# targets: get_streams/get_floor %.2f (<= 1.3), put_inflight/put_floor %.2f "
           "(<= 1.3), get_streams/get %.2f (<= 0.35), put_inflight/put %.2f (<= 0.4), "
           "list_1000/list %.2f (<= 0.45); the session's peak resident size %.1f MiB in the "
           "upload (bound: 4 parts + 32 MiB = %.0f MiB), %.1f MiB in the download (bound: 4 x "
           "16 MiB + 32 MiB = %.0f MiB)\n",
           f.get_streams.best() / p.get_floor(), f.put_inflight.best() / p.put_floor(),
           f.get_streams.best() / f.get.best(), f.put_inflight.best() / f.put.best(),
           f.list_1000.best() / f.list.best(), f.put_inflight.peak_kb / 1024.0,
           (4.0 * part_size) / 1048576.0 + 32, f.get_streams.peak_kb / 1024.0, 4.0 * 16 + 32);
    const struct {
        const char *name;
        const Measure &m;
    } rows[] = {{"get", f.get},       {"get_streams", f.get_streams},
                {"put", f.put},       {"put_inflight", f.put_inflight},
                {"list", f.list},     {"list_1000", f.list_1000}};
    std::string cpu;
    for (const auto &r : rows) {
        char item[200];
        snprintf(item, sizeof item,
                 "%s%s: curl %.2f, session %.2f, emulator %.2f (session peak %.1f MiB)",
                 cpu.empty() ? "" : "; ", r.name, r.m.best_cpu.client, r.m.best_cpu.session,
                 r.m.best_cpu.emulator, r.m.peak_kb / 1024.0);
        cpu += item;
    }
    printf("# CPU seconds of the best rounds (%ld cores, load %s): %s\n",
           sysconf(_SC_NPROCESSORS_ONLN), read_text("/proc/loadavg").substr(0, 14).c_str(),
           cpu.c_str());
    double range_bytes = static_cast<double>(p.size) / static_cast<double>(p.ranges());
    print_flow("get_streams", f.get_streams,
               [](const tarvex_test::BoxEmulator::LogEntry &e) {
                   return e.path.rfind("/d/", 0) == 0;
               },
               p.latency() + range_bytes / p.bandwidth());
    print_flow("put_inflight", f.put_inflight,
               [](const tarvex_test::BoxEmulator::LogEntry &e) {
                   return e.method == "PUT" && e.path.find("/upload_sessions/") != std::string::npos;
               },
               p.latency() + p.processing() + static_cast<double>(part_size) / p.bandwidth());
    auto page = [](const tarvex_test::BoxEmulator::LogEntry &e) {
        return e.path.size() > 6 && e.path.compare(e.path.size() - 6, 6, "/items") == 0;
    };
    print_flow("list", f.list, page, p.latency());
    print_flow("list_1000", f.list_1000, page, p.latency());
    print_flow("put", f.put,
               [](const tarvex_test::BoxEmulator::LogEntry &e) {
                   return e.method == "PUT" && e.path.find("/upload_sessions/") != std::string::npos;
               },
               p.latency() + p.processing() + static_cast<double>(part_size) / p.bandwidth());
}

void write_policy(const std::string &path, const std::string &keys)
{
    std::ofstream(path) << R"({"user_api_rate_limit": 1000)" << keys << "}";
}

/* The folder of 10,000 small files, seeded a thousand at a time. */
void seed_folder(tarvex_test::BoxEmulator &emulator)
{
    for (int start = 0; start < folder_items; start += 1000) {
        std::string entries;
        for (int i = start; i < start + 1000; i++) {
            char name[64];
            snprintf(name, sizeof name, "/bench/many/f%05d", i);
            entries += std::string(entries.empty() ? "" : ",") + R"({"path":")" + name +
                       R"(","content":"x"})";
        }
        emulator.seed(R"({"entries":[)" + entries + "]}");
    }
}

int bench(const Profile &p)
{
    const std::string home = p.dir + "/home";
    mkdir(home.c_str(), 0700);
    std::string source = p.dir + "/upload.bin", sha1, md5;
    if (!write_random_file(source, p.size) || !file_digests(source, &sha1, &md5)) {
        fprintf(stderr, "box_wan: cannot write %s\n", source.c_str());
        return 1;
    }
    write_policy(p.dir + "/plain.json", "");
    write_policy(p.dir + "/distant.json", R"(, "download_streams": 4, )"
                                          R"("upload_parts_in_flight": 4, "list_page_size": 1000)");
    std::ofstream(p.dir + "/creds.json")
        << R"({"access_token": "test-token", "token_expiry": "2099-01-01T00:00:00.000000+00:00",)"
        << R"( "sub": "bench-user", "max_upload": 53687091200})";

    tarvex_test::BoxEmulator emulator;
    emulator.seed(R"({"entries":[{"path":"/bench/download.bin","size":)" +
                  std::to_string(p.size) + "}]}");
    seed_folder(emulator);
    emulator.config(R"({"latency_ms":)" + std::to_string(p.latency_ms) +
                    R"(,"bandwidth_bps":)" + std::to_string(p.bandwidth_bps) +
                    R"(,"part_processing_ms":)" + std::to_string(p.processing_ms) + "}");

    auto server_for = [&](const std::string &policy, const std::string &dir) {
        mkdir(dir.c_str(), 0700);
        return std::make_unique<Server>(
            dir,
            std::vector<std::string>{"--dsi", "box", "--dsi-path", TARVEX_LIB_DIR,
                                     "--config-file", "config=" + policy, "--config-file",
                                     "creds=" + p.dir + "/creds.json"},
            Env{{"HOME", home},
                {"TARVEX_TEST_HOME", home},
                {"LD_PRELOAD", TARVEX_HOME_PRELOAD},
                {"TARVEX_BOX_API_BASE", emulator.api_base()},
                {"TARVEX_BOX_UPLOAD_BASE", emulator.upload_base()}});
    };
    auto plain = server_for(p.dir + "/plain.json", p.dir + "/plain");
    auto distant = server_for(p.dir + "/distant.json", p.dir + "/distant");
    if (plain->port() == 0 || distant->port() == 0) {
        fprintf(stderr, "box_wan: a server did not start\n");
        return 1;
    }

    Bench b{p, emulator, *plain, *distant, source, sha1, md5};
    Figures f;
    for (int n = 0; n < p.rounds; n++)
        if (!round(b, f, n))
            return 1;
    print_figures(p, f);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Profile p;
    long long mib = argc > 1 ? atoll(argv[1]) : 1024;
    p.rounds = argc > 2 ? atoi(argv[2]) : 3;
    p.latency_ms = argc > 3 ? atoi(argv[3]) : 100;
    p.bandwidth_bps = argc > 4 ? atoll(argv[4]) : 50000000;
    p.processing_ms = argc > 5 ? atoi(argv[5]) : 50;
    if (mib <= 64 || p.rounds <= 0 || p.latency_ms < 0 || p.bandwidth_bps <= 0 ||
        p.processing_ms < 0) {
        fprintf(stderr, "usage: box_wan [SIZE_MIB [ROUNDS [LATENCY_MS [BANDWIDTH_BPS "
                        "[PROCESSING_MS]]]]] (SIZE_MIB above 64: the download must go in "
                        "streams)\n");
        return 2;
    }
    p.size = mib << 20;
    return in_scratch("box_wan", "tarvex-box-wan", [&](const std::string &dir) {
        p.dir = dir;
        return bench(p);
    });
}
