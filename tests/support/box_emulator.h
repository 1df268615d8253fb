/*
 * The Box emulator (tools/box-emulator/box_emulator.py) as a test fixture.
 *
 * Construction starts the emulator on a free loopback port (plain HTTP) and
 * returns once it listens; destruction stops it (SIGTERM, then SIGKILL) and
 * removes its temporary directory (uploaded contents).
 *
 *     tarvex_test::BoxEmulator emu;                 // http://127.0.0.1:<port>
 *     auto ids = emu.seed(R"({"entries":[{"path":"/a/f.txt","content":"hi"}]})");
 *     ... point the code under test at emu.api_base() / emu.upload_base(),
 *         bearer token "test-token" ...
 *     for (const auto &e : emu.log()) ...           // every request it got
 *
 * The helpers talk to the emulator's control interface (/_emulator/...) and
 * throw std::runtime_error when it refuses or cannot be reached.  They may
 * be called from any thread.
 */
#ifndef TARVEX_TEST_BOX_EMULATOR_H
#define TARVEX_TEST_BOX_EMULATOR_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarvex_test {

class BoxEmulator {
public:
    /* One request as the emulator received it (control requests excluded). */
    struct LogEntry {
        std::string method;
        std::string path;                                        /* without the query */
        std::map<std::string, std::vector<std::string>> query;   /* "marker=" gives {""} */
        std::map<std::string, std::string> headers;              /* names in lower case */
        int status = 0;                                          /* 0: connection dropped */
        /* The emulator's monotonic clock, seconds: the head was read; just
         * before the answer's last byte went out (or the connection was
         * given up).  Both lie within the client's own request. */
        double started = 0;
        double ended = 0;

        /* Header value by case-insensitive name; "" when absent. */
        std::string header(const std::string &name) const;
    };

    /* Requests of one kind, logged or being served: the most that were
     * open at once, how many are open now, how many there were. */
    struct Concurrency {
        int peak = 0;
        int open = 0;
        int count = 0;
    };

    /* One item of the emulated account, as tree() lists it. */
    struct TreeEntry {
        std::string path;        /* "/a/b.txt" */
        std::string type;        /* "file" or "folder" */
        uint64_t size = 0;       /* a folder's: the sum of what it holds */
        std::string sha1;        /* lower-case hex; "" for folders */
        std::string md5;         /* the "tarvex-md5" property; "" when none */
    };

    BoxEmulator();
    ~BoxEmulator();
    BoxEmulator(const BoxEmulator &) = delete;
    BoxEmulator &operator=(const BoxEmulator &) = delete;

    /* "http://127.0.0.1:<port>", no trailing slash; API paths start
     * "/2.0/", upload paths "/api/2.0/", both on this one origin. */
    const std::string &base_url() const { return base_url_; }
    const std::string &api_base() const { return base_url_; }
    const std::string &upload_base() const { return base_url_; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }

    /* Empty tree (root "0"), empty log; faults, rate limit, tokens, pending
     * commits and configuration back to their start-up values. */
    void reset();
    /* POST /_emulator/seed with {"entries":[...]}; returns path -> Box id,
     * including the parent folders it created. */
    std::map<std::string, std::string> seed(const std::string &json);
    /* Adds one fault (a JSON object) or several (a JSON array). */
    void fault(const std::string &json);
    std::vector<LogEntry> log();
    void clear_log();
    /* Over the requests with this method ("" any) and a path that
     * path_regex (Python syntax, searched; "" any) finds, e.g.
     * concurrency("PUT", "^/api/2\\.0/files/upload_sessions/[^/]+$"). */
    Concurrency concurrency(const std::string &method, const std::string &path_regex);
    /* The item at a path as JSON text (all fields, "metadata" null when it
     * has none); "" when nothing is there. */
    std::string item(const std::string &path);
    /* The bytes of the file at a path. */
    std::string content(const std::string &path);
    /* Every item below the root, depth first in folder order. */
    std::vector<TreeEntry> tree();
    /* The next `count` commits answer 202 with Retry-After: retry_after. */
    void commit_pending(int count, int retry_after = 1);
    /* {"part_size":N,"min_session_size":N} for upload sessions;
     * {"latency_ms":N,"part_processing_ms":N,"bandwidth_bps":N}: a distant
     * Box (tools/box-emulator/README.md). */
    void config(const std::string &json);

    /* Any control request; returns the answer's body, throws unless 200. */
    std::string control(const std::string &method, const std::string &path,
                        const std::string &body = "");

private:
    void spawn();
    void wait_listening();
    void stop();
    long request(const std::string &method, const std::string &path,
                 const std::string &body, std::string &answer);

    std::string dir_;
    std::string base_url_;
    int port_ = 0;
    pid_t pid_ = -1;
    std::mutex mutex_;
    void *curl_ = nullptr;
};

} // namespace tarvex_test

#endif
