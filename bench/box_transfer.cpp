/*
 * Moves a 1 GiB file each way through tarvex-gridftp-server, the Box
 * plug-in and the Box emulator with curl, and in the same run measures
 * what bounds each way:
 *
 *   - retr: curl RETR into /dev/null; direct: curl GET of the same file
 *     straight from the emulator (content request and its redirect) into
 *     /dev/null.
 *   - stor: curl STOR of a 1 GiB file, its size announced with ALLO so
 *     that it goes through a Box upload session part by part; hash: the
 *     upload's digests alone in this process over the same bytes, part by
 *     part as the plug-in takes them (SHA-1 of each part, then the part
 *     added to the whole file's SHA-1 and MD5).
 *   - the peak resident set (VmHWM) of the server's session process during
 *     the upload, in MiB.
 *
 *   box_transfer: retr_MBps=<a> direct_MBps=<b> ratio_retr=<a/b> stor_MBps=<c> hash_MBps=<d> ratio_stor=<c/d> session_peak_rss_mb=<m>
 *
 * The best round of each measure counts.  Then lines starting with "#":
 * every round's figures; the download's time to its first byte (login,
 * path lookup and the plug-in's paced requests) and its speed after it
 * beside the emulator's; the CPU seconds per GiB of the curl, the server's
 * session and the emulator for each way; the session's memory against its
 * limit; and where the best upload's time went: reading the client's data,
 * hashing the parts, sending them (the whole file's SHA-1 and MD5 run
 * beside the part requests), committing.  The breakdown comes from the
 * session's own time-stamped debug lines (the REST client logs the end and
 * duration of every request) and the hashing speed measured here: the gap
 * before each part request is reading plus the part's SHA-1, whose known
 * time is taken out of it.
 *
 * Each round runs the measures one after the other (direct, retr, hash,
 * stor), so a load that comes and goes on the machine weighs on all alike.
 * Each upload is checked against Box's record (size, SHA-1, MD5 property)
 * and deleted.  The policy is the plug-in's default pace of 16 requests a
 * second.  The session's home (pacing files) is a scratch folder, through
 * the e2e suite's account shim.
 *
 * usage: box_transfer [SIZE_MIB [ROUNDS]] (default 1024 3); files go to
 * $TMPDIR or /tmp.
 */
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <atomic>
#include <sstream>

#include "box_emulator.h"
#include "box_transfer.h"

using namespace tarvex_bench;

namespace {

constexpr long long default_part_size = 8ll << 20;

struct Digests {
    std::string sha1;
    std::string md5;
};

/* Seconds the upload's hashing takes over the file, part by part, and of
 * that the parts' own SHA-1 (the file's digests run beside the part's
 * request, the part's SHA-1 before it); reading the file is not counted. */
struct HashTimes {
    double all = -1;
    double part = 0;
};

HashTimes hash_seconds(const std::string &path, long long part_size, Digests *digests)
{
    HashTimes times;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return times;
    std::vector<unsigned char> part(static_cast<size_t>(part_size));
    SHA_CTX sha;
    MD5_CTX md5;
    SHA1_Init(&sha);
    MD5_Init(&md5);
    std::chrono::steady_clock::duration spent{}, spent_part{};
    for (;;) {
        size_t length = 0;
        ssize_t n = 0;
        while (length < part.size() && (n = read(fd, part.data() + length, part.size() - length)) > 0)
            length += static_cast<size_t>(n);
        if (n < 0) {
            close(fd);
            return times;
        }
        if (length == 0)
            break;
        auto t0 = std::chrono::steady_clock::now();
        unsigned char part_sha[SHA_DIGEST_LENGTH];
        SHA1(part.data(), length, part_sha);
        spent_part += std::chrono::steady_clock::now() - t0;
        SHA1_Update(&sha, part.data(), length);
        MD5_Update(&md5, part.data(), length);
        spent += std::chrono::steady_clock::now() - t0;
    }
    close(fd);
    unsigned char sha_out[SHA_DIGEST_LENGTH], md5_out[MD5_DIGEST_LENGTH];
    SHA1_Final(sha_out, &sha);
    MD5_Final(md5_out, &md5);
    digests->sha1 = hex(sha_out, sizeof sha_out);
    digests->md5 = hex(md5_out, sizeof md5_out);
    times.all = std::chrono::duration<double>(spent).count();
    times.part = std::chrono::duration<double>(spent_part).count();
    return times;
}

/* One request as the REST client's debug line tells it. */
struct Logged {
    double end = 0;      /* wall-clock seconds */
    double seconds = 0;  /* duration */
    std::string method;
    std::string url;
    unsigned long long bytes_out = 0;
};

/* "<sec>.<nsec>::dsi_rest: DEBUG: <pid>: <METHOD> <url> -> <status>, <in>
 * bytes in, <out> out, <seconds> s" */
std::vector<Logged> read_rest_log(const std::string &path)
{
    std::vector<Logged> requests;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        Logged r;
        char method[16], url[1024];
        int status = 0;
        unsigned long long bytes_in = 0;
        if (sscanf(line.c_str(), "%lf::dsi_rest: DEBUG: %*d: %15s %1023s -> %d, %llu bytes in, %llu out, %lf s",
                   &r.end, method, url, &status, &bytes_in, &r.bytes_out, &r.seconds) == 7) {
            r.method = method;
            r.url = url;
            requests.push_back(r);
        }
    }
    return requests;
}

/* Where an upload's time went, in seconds. */
struct Breakdown {
    double reading = 0, hashing = 0, sending = 0, committing = 0;
    int parts = 0;
    bool ok = false;
};

/* From the upload session's requests: after the upload session is made,
 * each part's request is preceded by filling the part (reading) and its
 * own SHA-1 (hashing, at the speed measured here); the part requests are
 * the sending, the whole file's SHA-1 and MD5 running beside them; what
 * follows the last part (commit, the MD5 property) is the committing. */
Breakdown upload_breakdown(const std::vector<Logged> &requests, double hash_bytes_per_s)
{
    Breakdown b;
    double mark = -1;
    double last_end = -1;
    for (const Logged &r : requests) {
        bool part = r.method == "PUT" && r.url.find("/upload_sessions/") != std::string::npos;
        if (r.method == "POST" && r.url.size() >= 16 &&
            r.url.compare(r.url.size() - 16, 16, "/upload_sessions") == 0) {
            mark = r.end;
        } else if (part && mark >= 0) {
            double gap = std::max(0.0, r.end - r.seconds - mark);
            double hashing = std::min(gap, static_cast<double>(r.bytes_out) / hash_bytes_per_s);
            b.hashing += hashing;
            b.reading += gap - hashing;
            b.sending += r.seconds;
            b.parts++;
            mark = r.end;
        }
        last_end = r.end;
    }
    if (b.parts > 0) {
        b.committing = last_end - mark;
        b.ok = true;
    }
    return b;
}

/* curl's -w answer, e.g. "1073741824 0.125" (size, time of the first byte). */
struct CurlSays {
    long long size = -1;
    double first_byte = 0;
};

CurlSays curl_says(const std::string &path)
{
    CurlSays says;
    std::istringstream(read_text(path)) >> says.size >> says.first_byte;
    return says;
}

/* Box's record of an upload must have the size, SHA-1 and MD5 property of
 * the file sent.  The file is deleted then, so that its content leaves the
 * emulator's page cache: on this virtual machine a page the guest has
 * never touched costs some microseconds at first use (writing 1 GiB of
 * new files took 1.6 to 2 s of CPU, rewriting freed pages 0.2 s), and
 * every round would otherwise pay it again for storing the parts. */
bool stored_intact(tarvex_test::BoxEmulator &emulator, const std::string &path,
                   long long size, const Digests &digests)
{
    for (const auto &e : emulator.tree()) {
        if (e.path != path)
            continue;
        if (static_cast<long long>(e.size) != size || e.sha1 != digests.sha1 ||
            e.md5 != digests.md5) {
            fprintf(stderr, "box_transfer: %s differs from the file sent\n", path.c_str());
            return false;
        }
        return timed({"curl", "-sS", "-f", "-X", "DELETE", "-H", "Authorization: Bearer test-token",
                      emulator.api_base() + "/2.0/files/" + json_id(emulator.item(path))}) >= 0;
    }
    fprintf(stderr, "box_transfer: %s is not in Box\n", path.c_str());
    return false;
}

/* CPU seconds of a measure, summed over its rounds. */
struct CpuUse {
    double client = 0, session = 0, emulator = 0;
};

/* Waits until the server has no session left (each ends after its client's
 * QUIT), so that their CPU time has reached the server's children's. */
void sessions_ended(pid_t server)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!children_of(server).empty() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

struct Run {
    long long size = 0;
    int rounds = 3;
    std::string dir;
};

/* What the rounds measure. */
struct Figures {
    CpuUse direct_cpu, retr_cpu, stor_cpu;
    Rounds direct, retr, stor, hash;
    Rounds direct_stream, retr_stream; /* after the first byte */
    std::vector<double> retr_first_byte;
    double best_stor_s = 0, best_part_hash_s = 0;
    long peak_kb = 0;
    pid_t best_session = 0;
    Digests digests;
};

/* A run's emulator and server, and the figures of its rounds. */
struct Bench {
    const Run &run;
    tarvex_test::BoxEmulator &emulator;
    Server &server;
    std::string content_url;
    std::string source;
    std::string says; /* curl's -w answer */
    Figures f;

    /* Runs a curl and adds the CPU time of the curl, the server's session
     * and the emulator to `use`. */
    double measure(CpuUse &use, const std::vector<std::string> &args,
                   const std::string &out = "")
    {
        double emulator0 = cpu_seconds(emulator.pid(), false);
        double server0 = cpu_seconds(server.pid(), true);
        double client = 0;
        double s = timed(args, out, &client);
        sessions_ended(server.pid());
        use.client += client;
        use.session += cpu_seconds(server.pid(), true) - server0;
        use.emulator += cpu_seconds(emulator.pid(), false) - emulator0;
        return s;
    }
};

constexpr char write_out[] = "%{size_download} %{time_starttransfer}";

/* The file straight from the emulator, then through the server. */
bool download_round(Bench &b)
{
    Figures &f = b.f;
    double s = b.measure(f.direct_cpu,
                         {"curl", "-sS", "-L", "-H", "Authorization: Bearer test-token", "-o",
                          "/dev/null", "-w", write_out, b.content_url},
                         b.says);
    CurlSays got = curl_says(b.says);
    if (s < 0 || got.size != b.run.size) {
        fprintf(stderr, "box_transfer: the direct download failed\n");
        return false;
    }
    f.direct.add(mbps(b.run.size, s));
    f.direct_stream.add(mbps(b.run.size, s - got.first_byte));

    s = b.measure(f.retr_cpu,
                  {"curl", "-sS", "-u", "bench:bench", "-o", "/dev/null", "-w", write_out,
                   b.server.url("/bench/download.bin")},
                  b.says);
    got = curl_says(b.says);
    if (s < 0 || got.size != b.run.size) {
        fprintf(stderr, "box_transfer: RETR failed or was cut short\n");
        return false;
    }
    f.retr.add(mbps(b.run.size, s));
    f.retr_stream.add(mbps(b.run.size, s - got.first_byte));
    f.retr_first_byte.push_back(got.first_byte);
    return true;
}

/* Hashing the file alone, then storing it through the server. */
bool upload_round(Bench &b, int round)
{
    Figures &f = b.f;
    HashTimes hs = hash_seconds(b.source, default_part_size, &f.digests);
    if (hs.all <= 0) {
        fprintf(stderr, "box_transfer: cannot read %s\n", b.source.c_str());
        return false;
    }
    f.hash.add(mbps(b.run.size, hs.all));
    if (f.best_part_hash_s == 0 || hs.part < f.best_part_hash_s)
        f.best_part_hash_s = hs.part;

    // A new name each round: storing onto an existing file would add its
    // deletion to the upload's time.
    std::string target = "/bench/upload-" + std::to_string(round) + ".bin";
    SessionPeak peak(b.server.pid());
    double s = b.measure(f.stor_cpu, {"curl", "-sS", "-u", "bench:bench", "-Q",
                                      "ALLO " + std::to_string(b.run.size), "-T", b.source,
                                      b.server.url(target)});
    peak.stop();
    if (s < 0) {
        fprintf(stderr, "box_transfer: STOR of %s failed\n", target.c_str());
        return false;
    }
    f.stor.add(mbps(b.run.size, s));
    f.peak_kb = std::max(f.peak_kb, peak.peak_kb());
    if (f.best_stor_s == 0 || s < f.best_stor_s) {
        f.best_stor_s = s;
        f.best_session = peak.pid();
    }
    return stored_intact(b.emulator, target, b.run.size, f.digests);
}

void print_figures(const Run &run, const Figures &f)
{
    double a = f.retr.best(), b = f.direct.best(), c = f.stor.best(), d = f.hash.best();
    printf("box_transfer: retr_MBps=%.1f direct_MBps=%.1f ratio_retr=%.2f stor_MBps=%.1f "
           "hash_MBps=%.1f ratio_stor=%.2f session_peak_rss_mb=%.1f\n",
           a, b, a / b, c, d, c / d, f.peak_kb / 1024.0);
    printf("# %lld MiB each way, %d rounds; MB/s in each round: direct %s; retr %s; hash %s; "
           "stor %s\n",
           run.size >> 20, run.rounds, f.direct.spread().c_str(), f.retr.spread().c_str(),
           f.hash.spread().c_str(), f.stor.spread().c_str());
    std::string first_bytes;
    for (double t : f.retr_first_byte)
        first_bytes += (first_bytes.empty() ? "" : " ") + std::to_string(t).substr(0, 5);
    printf("# retr: first byte after %s s (login, path lookup, paced requests); after it %.0f "
           "MB/s against direct %.0f MB/s (ratio %.2f); MB/s in each round: direct %s; retr %s\n",
           first_bytes.c_str(), f.retr_stream.best(), f.direct_stream.best(),
           f.retr_stream.best() / f.direct_stream.best(), f.direct_stream.spread().c_str(),
           f.retr_stream.spread().c_str());
    double per_gib = static_cast<double>(run.rounds) * static_cast<double>(run.size) /
                     static_cast<double>(1ll << 30);
    printf("# CPU seconds per GiB, mean of the rounds (the machine has %ld cores): direct: "
           "client %.2f, emulator %.2f; retr: client %.2f, session %.2f, emulator %.2f; stor: "
           "client %.2f, session %.2f, emulator %.2f\n",
           sysconf(_SC_NPROCESSORS_ONLN), f.direct_cpu.client / per_gib,
           f.direct_cpu.emulator / per_gib, f.retr_cpu.client / per_gib,
           f.retr_cpu.session / per_gib, f.retr_cpu.emulator / per_gib,
           f.stor_cpu.client / per_gib, f.stor_cpu.session / per_gib,
           f.stor_cpu.emulator / per_gib);
    printf("# session memory: peak %.1f MiB against a limit of one part plus 32 MB = %.1f MiB\n",
           f.peak_kb / 1024.0, (default_part_size + 32e6) / 1048576.0);
}

/* Where the best upload's time went, from its session's REST log. */
void print_breakdown(const Run &run, const Figures &f, const std::string &logs)
{
    Breakdown bd = upload_breakdown(
        read_rest_log(logs + "/rest-" + std::to_string(f.best_session) + ".log"),
        static_cast<double>(run.size) / f.best_part_hash_s);
    if (!bd.ok) {
        printf("# upload breakdown: no part requests found in the session's log\n");
        return;
    }
    double best_stor_s = f.best_stor_s;
    double other = best_stor_s - bd.reading - bd.hashing - bd.sending - bd.committing;
    auto share = [&](double part) { return 100.0 * part / best_stor_s; };
    printf("# best upload %.2f s, %d parts: reading %.2f s (%.0f%%), hashing the parts %.2f s "
           "(%.0f%%), sending %.2f s (%.0f%%, the file's SHA-1 and MD5 beside it), committing %.2f s (%.0f%%), other %.2f s (%.0f%%: login, "
           "lookup, upload session, end of transfer)\n",
           best_stor_s, bd.parts, bd.reading, share(bd.reading), bd.hashing, share(bd.hashing),
           bd.sending, share(bd.sending), bd.committing, share(bd.committing), other,
           share(other));
    printf("# per part: reading %.1f ms, hashing %.1f ms, sending %.1f ms (%.0f MB/s to the "
           "emulator)\n",
           1e3 * bd.reading / bd.parts, 1e3 * bd.hashing / bd.parts, 1e3 * bd.sending / bd.parts,
           mbps(run.size, bd.sending));
}

/* The file to upload, and the plug-in's policy and credential. */
bool write_inputs(const Run &run, const std::string &source)
{
    if (!write_random_file(source, run.size)) {
        fprintf(stderr, "box_transfer: cannot write %s\n", source.c_str());
        return false;
    }
    std::ofstream(run.dir + "/policy.json") << R"({"user_api_rate_limit": 16})";
    std::ofstream(run.dir + "/creds.json")
        << R"({"access_token": "test-token", "token_expiry": "2099-01-01T00:00:00.000000+00:00",)"
        << R"( "sub": "bench-user", "max_upload": 53687091200})";
    return true;
}

int bench(const Run &run)
{
    const std::string source = run.dir + "/upload.bin";
    const std::string home = run.dir + "/home";
    const std::string logs = run.dir + "/logs";
    mkdir(home.c_str(), 0700);
    mkdir(logs.c_str(), 0700);
    if (!write_inputs(run, source))
        return 1;

    tarvex_test::BoxEmulator emulator;
    emulator.seed(R"({"entries":[{"path":"/bench/download.bin","size":)" +
                  std::to_string(run.size) + "}]}");
    const std::string content_url = emulator.api_base() + "/2.0/files/" +
                                    json_id(emulator.item("/bench/download.bin")) + "/content";
    Server server(run.dir,
                  {"--dsi", "box", "--dsi-path", TARVEX_LIB_DIR, "--config-file",
                   "config=" + run.dir + "/policy.json", "--config-file",
                   "creds=" + run.dir + "/creds.json"},
                  {{"HOME", home},
                   {"TARVEX_TEST_HOME", home},
                   {"LD_PRELOAD", TARVEX_HOME_PRELOAD},
                   {"TARVEX_BOX_API_BASE", emulator.api_base()},
                   {"TARVEX_BOX_UPLOAD_BASE", emulator.upload_base()},
                   {"TARVEX_DSI_REST_DEBUG", "DEBUG," + logs + "/rest-%p.log,DEBUG"}});
    if (server.port() == 0) {
        fprintf(stderr, "box_transfer: the server did not start\n");
        return 1;
    }

    Bench b{run, emulator, server, content_url, source, run.dir + "/curl.out", {}};
    for (int round = 0; round < run.rounds; round++)
        if (!download_round(b) || !upload_round(b, round))
            return 1;
    print_figures(run, b.f);
    print_breakdown(run, b.f, logs);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Run run;
    long long mib = argc > 1 ? atoll(argv[1]) : 1024;
    run.rounds = argc > 2 ? atoi(argv[2]) : 3;
    if (mib <= 50 || run.rounds <= 0) {
        fprintf(stderr, "usage: box_transfer [SIZE_MIB [ROUNDS]] (SIZE_MIB above 50: the upload "
                        "must go through an upload session)\n");
        return 2;
    }
    run.size = mib << 20;
    return in_scratch("box_transfer", "tarvex-box-bench", [&](const std::string &dir) {
        run.dir = dir;
        return bench(run);
    });
}
