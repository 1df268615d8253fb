/*
 * Several requests at once for a distant Box, against the emulator's record
 * of what was open when: an upload session's parts in flight
 * ("upload_parts_in_flight") and a large download's ranges
 * ("download_streams").  Sizes are lowered (parts of 16 KiB, ranges of 64
 * to 128 KiB) so that a few hundred kilobytes make many, and the emulator
 * holds each request long enough that those sent together overlap even on
 * a loaded machine.
 */
#include <openssl/md5.h>
#include <openssl/sha.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "box_session_support.h"
#include "config.h"
#include "download_ranges.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "recv.h"

namespace box_session_test {
namespace {

using tarvex_test::pattern;
using concurrency = tarvex_test::BoxEmulator::Concurrency;

constexpr uint64_t part_size = 16384;
const std::string part_path = "^/api/2\\.0/files/upload_sessions/[^/]+$";
const std::string download_path = "^/d/";

/* What the parts step leaves in an upload session's record: Box's record
 * of each part ("offset size sha1", in the list's order) and the whole
 * file's digests so far. */
struct parts_record {
    strings parts;
    std::string sha1, md5;
};

parts_record record_of(const tarvex_box_upload_session_t *upload)
{
    parts_record out;
    for (size_t i = 0; i < json_array_size(upload->part_array); i++) {
        json_t *part = json_array_get(upload->part_array, i);
        out.parts.push_back(
            std::to_string(json_integer_value(json_object_get(part, "offset"))) + " " +
            std::to_string(json_integer_value(json_object_get(part, "size"))) + " " +
            json_string_value(json_object_get(part, "sha1")));
    }
    SHA_CTX sha = upload->sha1_ctx;
    MD5_CTX md5 = upload->md5_ctx;
    unsigned char s[SHA_DIGEST_LENGTH], m[MD5_DIGEST_LENGTH];
    SHA1_Final(s, &sha);
    MD5_Final(m, &md5);
    out.sha1 = hex(s, sizeof s);
    out.md5 = hex(m, sizeof m);
    return out;
}

parts_record pattern_record(uint64_t size)
{
    std::string data = pattern(size);
    unsigned char s[SHA_DIGEST_LENGTH], m[MD5_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(data.data()), data.size(), s);
    MD5(reinterpret_cast<const unsigned char *>(data.data()), data.size(), m);
    return {{}, hex(s, sizeof s), hex(m, sizeof m)};
}

/* A receive that opens an upload session and sends the parts, but does
 * not commit: what the parts step leaves is kept for the test. */
parts_record captured;

void parts_only(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *user_arg)
{
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    tarvex_box_path_info_t *entry = nullptr, *parent = nullptr;
    tarvex_error_discard(tarvex_box_path_resolve(box, info->pathname, &entry, &parent));
    tarvex_box_upload_session_t *upload = nullptr;
    tarvex_result_t result = parent != nullptr
                                 ? tarvex_i_box_create_upload_session(box, info, parent, &upload)
                                 : TARVEX_FAILURE;
    if (result == TARVEX_SUCCESS)
        result = tarvex_i_box_upload_parts(op, box, info, upload);
    captured = upload != nullptr ? record_of(upload) : parts_record{};
    tarvex_gridftp_server_finished_transfer(op, result);
}

const tarvex_gfs_storage_iface_t parts_table = [] {
    tarvex_gfs_storage_iface_t t = box_table;
    t.recv_func = parts_only;
    return t;
}();

/* Polls until nothing of `method` on `path` is open at the emulator. */
concurrency settled(const std::string &method, const std::string &path)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    concurrency now = emulator().concurrency(method, path);
    while (now.open > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
        now = emulator().concurrency(method, path);
    }
    return now;
}

class in_flight_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        seed(R"([{"path":"/d","type":"folder"}])");
        ASSERT_NE(start(), nullptr);
        tarvex_box_path_info_t *entry = nullptr;
        tarvex_error_discard(tarvex_box_path_resolve(session_, "/d/x", &entry, nullptr));
        /* Anything above one part goes in parts of 16 KiB; more than
         * 200000 bytes to the end of a file in ranges of 64 to 128 KiB. */
        tarvex_i_box_chunked_minimum = static_cast<int>(part_size);
        emulator().config(R"({"part_size":16384,"min_session_size":0})");
        tarvex_i_box_streams_minimum = 200000;
        tarvex_i_box_stream_range_min = 65536;
        tarvex_i_box_stream_range_max = 131072;
        take_requests();
    }
    void TearDown() override
    {
        tarvex_i_box_upload_parts_in_flight = 1;
        tarvex_i_box_download_streams = 1;
        tarvex_i_box_chunked_minimum = saved_minimum_;
        tarvex_i_box_streams_minimum = saved_streams_minimum_;
        tarvex_i_box_stream_range_min = saved_range_min_;
        tarvex_i_box_stream_range_max = saved_range_max_;
        session_test::TearDown();
    }

    /* RETR of `path` from `offset` to the end; its reply. */
    std::string retrieve(const std::string &path, tarvex_off_t offset = 0)
    {
        driver_.clear_events();
        driver_.add_read_range(offset, -1);
        return take_reply(driver_.send(&box_table, session_, path));
    }
    /* A file of `size` generated bytes at `path`, listed afresh. */
    void seed_file(const std::string &path, uint64_t size)
    {
        seed(R"([{"path":")" + path + R"(","size":)" + std::to_string(size) + "}]");
        relist("/d");
    }

    int saved_minimum_ = tarvex_i_box_chunked_minimum;
    int64_t saved_streams_minimum_ = tarvex_i_box_streams_minimum;
    int64_t saved_range_min_ = tarvex_i_box_stream_range_min;
    int64_t saved_range_max_ = tarvex_i_box_stream_range_max;
};

/* The "Content-Range" and "digest" of every part PUT, sorted. */
strings part_puts(const std::vector<log_entry> &log)
{
    strings puts;
    for (const auto &e : log)
        if (e.method == "PUT")
            puts.push_back(e.header("Content-Range") + " " + e.header("digest"));
    std::sort(puts.begin(), puts.end());
    return puts;
}

/* Three parts at a time go to Box three at a time, and at some point
 * three together (each held 700 ms by Box); one at a time, one.  Either
 * way the same part requests, and a record with the same parts list and
 * the whole file's digests. */
TEST_F(in_flight_test, PartsInFlightLeaveTheRecordOneAtATimeWould)
{
    const uint64_t size = 4 * part_size + 1000;
    emulator().config(R"({"part_processing_ms":700})");
    parts_record record[2];
    strings puts[2];
    const int in_flight[2] = {1, 3};
    for (int i = 0; i < 2; i++) {
        SCOPED_TRACE(in_flight[i]);
        tarvex_i_box_upload_parts_in_flight = in_flight[i];
        tarvex_test::driver d;
        EXPECT_EQ(store_pattern(d, "/d/p" + std::to_string(i), size, 0, parts_table), "");
        record[i] = captured;
        concurrency seen = emulator().concurrency("PUT", part_path);
        EXPECT_EQ(seen.peak, in_flight[i]);
        EXPECT_EQ(seen.count, 5);
        puts[i] = part_puts(take_requests());
    }
    parts_record want = pattern_record(size);
    EXPECT_EQ(record[0].sha1, want.sha1);
    EXPECT_EQ(record[0].md5, want.md5);
    EXPECT_EQ(record[1].sha1, want.sha1);
    EXPECT_EQ(record[1].md5, want.md5);
    ASSERT_EQ(record[0].parts.size(), 5u);
    EXPECT_EQ(record[1].parts, record[0].parts);
    EXPECT_EQ(puts[1], puts[0]);
}

/* A part cut off mid-body is sent again while the others go on; the file
 * is whole, and the commit goes once every part has been answered. */
TEST_F(in_flight_test, APartCutOffIsSentAgain)
{
    const uint64_t size = 6 * part_size;
    tarvex_i_box_upload_parts_in_flight = 3;
    emulator().fault(R"({"method":"PUT","header_regex":{"content-range":"^bytes 16384-"},)"
                     R"("cut_body_after":1000})");
    tarvex_test::driver d;
    EXPECT_EQ(store_pattern(d, "/d/cut.bin", size), "");
    auto log = take_requests();
    double last_part = 0, commit = 0;
    int tries = 0;
    for (const auto &e : log) {
        if (e.method == "PUT")
            last_part = std::max(last_part, e.ended);
        if (e.method == "PUT" && e.header("Content-Range").rfind("bytes 16384-", 0) == 0)
            tries++;
        if (e.path.size() > 7 && e.path.compare(e.path.size() - 7, 7, "/commit") == 0)
            commit = e.started;
    }
    EXPECT_EQ(tries, 2);
    EXPECT_GE(commit, last_part);
    EXPECT_TRUE(emulator().content("/d/cut.bin") == pattern(size));
    EXPECT_FALSE(remembered("/d/cut.bin"));
}

/* A part that fails all its attempts fails the store; the record keeps
 * the parts before it (whatever came of those after), so that a restart
 * at its boundary sends the rest and the file comes out whole. */
TEST_F(in_flight_test, ARestartAfterAFailedPartCompletesTheFile)
{
    const uint64_t size = 7 * part_size + 500;
    tarvex_i_box_upload_parts_in_flight = 3;
    emulator().fault(R"({"method":"PUT","header_regex":{"content-range":"^bytes 32768-"},)"
                     R"("cut_body_after":1000,"count":3})");
    tarvex_test::driver first, restart;
    EXPECT_NE(store_pattern(first, "/d/again.bin", size), "");
    ASSERT_TRUE(remembered("/d/again.bin"));
    parts_record kept =
        record_of(tarvex_box_upload_state_query(&session_->upload_state, "/d/again.bin"));
    EXPECT_EQ(kept.parts.size(), 2u);
    take_requests();

    EXPECT_EQ(store_pattern(restart, "/d/again.bin", size, 2 * part_size), "");
    strings puts = part_puts(take_requests());
    ASSERT_EQ(puts.size(), 6u);
    EXPECT_EQ(puts[0].rfind("bytes 114688-", 0), 0u) << puts[0];
    EXPECT_EQ(puts[5].rfind("bytes 98304-", 0), 0u) << puts[5];
    EXPECT_TRUE(emulator().content("/d/again.bin") == pattern(size));
    tarvex_box_path_info_t *stored = cached("/d/again.bin");
    ASSERT_NE(stored, nullptr);
    EXPECT_STREQ(stored->md5, pattern_record(size).md5.c_str());
}

/* ABOR while parts are out: the store is answered with an error, nothing
 * is committed, and no part request is left running. */
TEST_F(in_flight_test, AborLeavesNoPartRunning)
{
    tarvex_i_box_upload_parts_in_flight = 3;
    emulator().config(R"({"bandwidth_bps":20000})");
    tarvex_test::driver d;
    d.cancel_after_bytes(3 * part_size + 1);
    EXPECT_NE(store_pattern(d, "/d/abor.bin", 10 * part_size), "");
    EXPECT_EQ(settled("PUT", part_path).open, 0);
    for (const auto &e : take_requests())
        EXPECT_EQ(e.path.find("/commit"), std::string::npos);
}

/* The download requests since the last call: the content request with
 * its "Range" ("C bytes=..."), and the ranges asked of the download link
 * as {first, last} (last -1: to the end) in the order asked. */
struct download_requests {
    std::string content;
    std::vector<std::pair<long long, long long>> ranges;
};

download_requests downloads()
{
    download_requests out;
    for (const auto &e : take_requests()) {
        if (e.path.size() > 8 && e.path.compare(e.path.size() - 8, 8, "/content") == 0)
            out.content += "C " + e.header("Range");
        if (e.path.rfind("/d/", 0) != 0)
            continue;
        long long first = -1, last = -1; /* -1: to the end */
        EXPECT_GE(sscanf(e.header("Range").c_str(), "bytes=%lld-%lld", &first, &last), 1)
            << e.header("Range");
        out.ranges.push_back({first, last});
    }
    return out;
}

/* Ranges that cover bytes `from` to `end` - 1 exactly, once each. */
void expect_cover(std::vector<std::pair<long long, long long>> ranges, long long from,
                  long long end)
{
    std::sort(ranges.begin(), ranges.end());
    long long next = from;
    for (const auto &[first, last] : ranges) {
        EXPECT_EQ(first, next);
        next = last < 0 ? end : last + 1;
    }
    EXPECT_EQ(next, end);
}

/* More than the minimum to the end of the file comes in ranges, three at
 * a time and at some point three together (Box holds each 400 ms): the
 * content request as for one stream, then ranges of 64 to 128 KiB that
 * cover the rest exactly; the client gets every byte once, in order.  Up
 * to the minimum, one stream as always. */
TEST_F(in_flight_test, RangesInFlightReachTheClientInOrder)
{
    const long long size = 1052897;
    seed_file("/d/big.bin", static_cast<uint64_t>(size));
    tarvex_i_box_download_streams = 3;
    emulator().config(R"({"latency_ms":400})");
    const struct {
        long long offset;
        const char *content; /* the content request as downloads() shows it */
        int streams;
    } rows[] = {{0, "C ", 3}, {100, "C bytes=100-", 3}, {852897, "C bytes=852897-", 1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.offset);
        EXPECT_EQ(retrieve("/d/big.bin", r.offset), "");
        EXPECT_EQ(emulator().concurrency("GET", download_path).peak, r.streams);
        download_requests seen = downloads();
        EXPECT_EQ(seen.content, r.content);
        expect_cover(seen.ranges, r.offset, size);
        if (r.streams == 1) {
            EXPECT_EQ(seen.ranges.size(), 1u);
        } else {
            for (const auto &[first, last] : seen.ranges) {
                EXPECT_GE(last - first + 1, 65536);
                EXPECT_LE(last - first + 1, 131072);
            }
        }
        const auto from = static_cast<uint64_t>(r.offset);
        expect_sent(from, pattern(static_cast<uint64_t>(size) - from, from));
    }
}

/* A range whose answer is cut short is asked again for its bytes not yet
 * received only; the client gets every byte once, in order. */
TEST_F(in_flight_test, ARangeCutShortIsAskedForTheRestOnly)
{
    const long long size = 1052897, cut_range = 116989, cut_after = 50000;
    seed_file("/d/big.bin", static_cast<uint64_t>(size));
    tarvex_i_box_download_streams = 3;
    emulator().fault(R"({"path_regex":"^/d/","header_regex":{"range":"^bytes=116989-"},)"
                     R"("truncate_after":50000})");
    EXPECT_EQ(retrieve("/d/big.bin"), "");
    download_requests seen = downloads();
    std::vector<std::pair<long long, long long>> again;
    for (const auto &range : seen.ranges)
        if (range.first > cut_range && range.first <= cut_range + cut_after)
            again.push_back(range);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].second, 2 * cut_range - 1);
    expect_sent(0, pattern(static_cast<uint64_t>(size)));
}

/* A range Box answers with fewer bytes than asked (a well-formed 206 whose
 * Content-Range ends early) is never taken for the whole range: the
 * transfer fails, after the bytes before that range only. */
TEST_F(in_flight_test, ARangeAnsweredShortIsNotTakenForWhole)
{
    const long long size = 1052897;
    seed_file("/d/big.bin", static_cast<uint64_t>(size));
    tarvex_i_box_download_streams = 3;
    emulator().fault(R"({"path_regex":"^/d/","header_regex":{"range":"^bytes=116989-"},)"
                     R"("range_short_by":1000})");
    std::string reply = retrieve("/d/big.bin");
    EXPECT_NE(reply.find("Box's answer ended before the range did."), std::string::npos) << reply;
    EXPECT_LE(driver_.sent_bytes(), 116989u);
    expect_sent(0, pattern(driver_.sent_bytes()));
}

/* A range that cannot be had fails the transfer: what reached the client
 * before is the file's beginning, in order, and no request is left
 * running.  So does a file whose size on Box is no longer the one listed:
 * no mixture of two contents is sent as one. */
TEST_F(in_flight_test, ARangeThatCannotBeHadFailsTheTransfer)
{
    const uint64_t size = 1052897;
    seed_file("/d/big.bin", size);
    tarvex_i_box_download_streams = 3;
    emulator().fault(R"({"path_regex":"^/d/","header_regex":{"range":"^bytes=350967-"},)"
                     R"("status":503,"count":-1})");
    EXPECT_NE(retrieve("/d/big.bin"), "");
    EXPECT_LE(driver_.sent_bytes(), 350967u);
    expect_sent(0, pattern(driver_.sent_bytes()));
    EXPECT_EQ(settled("GET", download_path).open, 0);
    emulator().control("DELETE", "/_emulator/faults");

    seed(R"([{"path":"/d/big.bin","size":2000000}])");
    std::string reply = retrieve("/d/big.bin");
    EXPECT_NE(reply.find("The file changed on Box while it was being sent"), std::string::npos)
        << reply;
}

/* ABOR while ranges are out: the transfer is answered with an error and
 * no range request is left running. */
TEST_F(in_flight_test, AborLeavesNoRangeRunning)
{
    seed_file("/d/big.bin", 1052897);
    tarvex_i_box_download_streams = 3;
    emulator().config(R"({"bandwidth_bps":200000})");
    driver_.cancel_after_bytes(150000);
    EXPECT_NE(retrieve("/d/big.bin"), "");
    EXPECT_EQ(settled("GET", download_path).open, 0);
    EXPECT_LT(emulator().concurrency("GET", download_path).count, 9);
}

} // namespace
} // namespace box_session_test
