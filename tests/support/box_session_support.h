/*
 * Shared set-up of the Box session and request tests: one emulator per test
 * program, the plug-in pointed at it with its pacing files and its "$HOME"
 * in a scratch directory, a driver per test, and readers of the emulator's
 * request log.
 */
#ifndef TARVEX_BOX_SESSION_SUPPORT_H
#define TARVEX_BOX_SESSION_SUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "box_emulator.h"
#include "driver.h"
#include "tarvex_box_common.h"

namespace box_session_test {

using log_entry = tarvex_test::BoxEmulator::LogEntry;
using strings = std::vector<std::string>;

tarvex_test::BoxEmulator &emulator();
/* How long a driver waits for the plug-in's final answer: only a guard
 * against a hang, far beyond what a 100 MiB store takes on a loaded machine
 * with the sanitizers (the driver's own default is 30 s). */
constexpr std::chrono::minutes answer_timeout{10};
/* The plug-in's table as the server would hold it. */
extern const tarvex_gfs_storage_iface_t box_table;
/* "$HOME/.tarvex" as the plug-in sees it: in this program's scratch home,
 * made by every session start. */
std::string home_dot();
/* The emulator's requests since the last call.  The emulator logs a
 * request before its answer goes out (and before it drops a connection), so
 * every request whose answer the code under test has had is there; call it
 * while none of its requests is in flight. */
std::vector<log_entry> take_requests();
/* The result as its FTP reply ("" for success); its error is released. */
std::string take_reply(tarvex_result_t result);
/* The folder ids of the listing requests among take_requests() (other
 * requests as ""). */
strings listings();
/* "METHOD path" of each request of take_requests(), with "?key=value&..."
 * when it has a query other than "fields". */
strings requests_made();
/* The requests of `method` whose path starts with `start` and ends with
 * `end`. */
std::vector<log_entry> only(const std::vector<log_entry> &log, const std::string &method,
                            const std::string &start, const std::string &end = "");
/* The next `count` requests (-1: all) of `method` on `path_regex` get the
 * emulator's fault `how` (the JSON members, e.g. R"("drop":true)"). */
void fault(const std::string &method, const std::string &path_regex, int count,
           const std::string &how);
/* Lower-case hex of a digest, and the MD5 and SHA-1 of a byte string. */
std::string hex(const unsigned char *digest, size_t length);
std::string md5_of(const std::string &data);
std::string sha1_of(const std::string &data);

class session_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    /* Seeds the emulator from the text of an entries array. */
    std::map<std::string, std::string> seed(const std::string &entries);
    /* Starts a session of Box user `user_id`; nullptr when refused. */
    tarvex_box_session_t *start(const std::string &user_id = "4242");
    /* The next listing of folder `id` answers `page`. */
    void script_page(const std::string &id, const std::string &page);

    tarvex_test::driver driver_;
    tarvex_box_session_t *session_ = nullptr;
};

} // namespace box_session_test

#endif
