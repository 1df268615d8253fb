/*
 * Downloads against the Box emulator: what each read range asks of Box,
 * how the content request and the download share their attempts, how
 * failures reach the client.
 */
#include <cctype>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "box_session_support.h"
#include "path_cache.h"
#include "path_resolve.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;
using tarvex_test::pattern;
using range_list = std::vector<std::pair<tarvex_off_t, tarvex_off_t>>;

constexpr uint64_t file_size = 300000;
constexpr tarvex_size_t block_size = 65536;

class download_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        id_ = seed(R"([{"path":"/d/f.bin","size":)" + std::to_string(file_size) + "}]")["/d/f.bin"];
        ASSERT_NE(start(), nullptr);
        /* Resolve once so that the folder listing is out of the way. */
        tarvex_box_path_info_t *entry = nullptr;
        ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/f.bin", &entry, nullptr), TARVEX_SUCCESS);
        take_requests();
        /* Small buffers: a download cut short has handed whole ones on. */
        driver_.set_block_size(block_size);
    }

    /* RETR of /d/f.bin over `ranges`; the FTP reply ("" for success). */
    std::string retrieve(const range_list &ranges, const std::string &path = "/d/f.bin")
    {
        for (const auto &[offset, length] : ranges)
            driver_.add_read_range(offset, length);
        return take_reply(driver_.send(&box_table, session_, path));
    }
    static void fault_download(const std::string &fields)
    {
        emulator().fault(R"({"method":"GET","path_regex":"^/d/",)" + fields + "}");
    }
    /* Each request since the last call as "C" (content) or "D" (download)
     * and its "Range" value, e.g. "C bytes=100-".  The token goes with the
     * content request only: the download's link is signed. */
    static strings requests()
    {
        strings seen;
        for (const auto &e : take_requests()) {
            bool download = e.path.rfind("/d/", 0) == 0;
            EXPECT_EQ(e.header("Authorization"), download ? "" : "Bearer test-token") << e.path;
            seen.push_back((download ? "D " : "C ") + e.header("Range"));
        }
        return seen;
    }
    /* The transfer was begun at most once and finished exactly once. */
    void expect_one_transfer(size_t begun)
    {
        EXPECT_EQ(driver_.events(event_kind::begin_transfer).size(), begun);
        EXPECT_EQ(driver_.events(event_kind::finished_transfer).size(), 1u);
    }
    std::string id_;
};

TEST_F(download_test, EachReadRangeAsksBoxForExactlyItsBytes)
{
    const struct {
        range_list ranges;
        strings requests;
        uint64_t from, length;
    } rows[] = {
        {{{0, -1}}, {"C ", "D "}, 0, file_size},
        {{{100, -1}}, {"C bytes=100-", "D bytes=100-"}, 100, file_size - 100},
        {{{100, 50}}, {"C bytes=100-149", "D bytes=100-149"}, 100, 50},
        /* Explicit ranges go on until the server wants nothing more. */
        {{{100, 50}, {150, 100000}},
         {"C bytes=100-149", "D bytes=100-149", "C bytes=150-100149", "D bytes=150-100149"},
         100, 100050},
        {{{0, 0}}, {}, 0, 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.requests.empty() ? "nothing wanted" : r.requests.front());
        driver_.clear_events();
        EXPECT_EQ(retrieve(r.ranges), "");
        EXPECT_EQ(requests(), r.requests);
        expect_sent(r.from, pattern(r.length, r.from));
        expect_one_transfer(1);
    }
}

/* A download cut short is taken up where the data channel stopped. */
TEST_F(download_test, ARetriedDownloadResumesWithoutSendingAByteTwice)
{
    const struct {
        tarvex_off_t offset, length;
        const char *last; /* end of the Range of the retry */
    } rows[] = {{0, -1, ""}, {100, 200000, "200099"}};
    constexpr uint64_t cut_at = 150000;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.last);
        fault_download(R"("truncate_after":)" + std::to_string(cut_at));
        EXPECT_EQ(retrieve({{r.offset, r.length}}), "");
        strings seen = requests();
        ASSERT_EQ(seen.size(), 3u);
        /* Resumed after the whole buffers the first attempt handed on. */
        uint64_t handed_on = cut_at / block_size * block_size;
        EXPECT_EQ(seen[2], "D bytes=" + std::to_string(r.offset + handed_on) + "-" + r.last);
        uint64_t length = r.length < 0 ? file_size - r.offset : r.length;
        expect_sent(r.offset, pattern(length, r.offset));
    }
}

/* Every answer the content request and the download can get, and what
 * comes of it: the two share two attempts, whether Box is busy or a
 * connection drops; a refusal is reported once and not retried; only a 200
 * or a 206 brings the file's bytes (any other final answer is a failure
 * with the class Box's translation gives, never a success with nothing
 * sent).  A failure never names the signed link, and one of the download
 * names the file and the download's host.  A missing path is reported
 * before the transfer begins. */
TEST_F(download_test, AnswersOfTheContentRequestAndTheDownload)
{
    const std::string busy = R"("status":429,"body":null)";
    const std::string drop = R"("drop":true)";
    const std::string not_found = R"("status":404,"body":{"type":"error","code":"not_found",
                                     "context_info":{"errors":[{"name":"f.bin"}]}})";
    auto status = [](int code) {
        return R"("status":)" + std::to_string(code) + R"(,"body":null)";
    };
    const std::string refused = "451-Box answered with HTTP status ";
    const struct {
        std::string content_fault, download_fault;
        strings requests;
        std::string reply; /* an FTP code starts it, other text is in it */
    } rows[] = {
        {"", busy, {"C ", "D ", "D "}, ""},
        {busy, "", {"C ", "C ", "D "}, ""},
        {busy, busy, {"C ", "C ", "D "}, "451-TOO_BUSY\r\n"},
        {busy, R"("truncate_after":1000)", {"C ", "C ", "D "}, "451-Transferred a partial file"},
        {drop, "", {"C ", "C ", "D "}, ""},
        {"", drop, {"C ", "D ", "D "}, ""},
        {drop, drop, {"C ", "C ", "D "}, "451"},
        {not_found, "", {"C "}, "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"f.bin\"\r\n"},
        {status(302), "", {"C "}, "Box named no download location for the file"},
        {"", status(503), {"C ", "D "}, "500-INTERNAL_ERROR\r\n"},
        {"", R"("drop":true,"count":2)", {"C ", "D ", "D "}, "GET http://127.0.0.1:"},
        {"", status(404), {"C ", "D "}, "550-PATH_NOT_FOUND\r\n"},
        {"", status(405), {"C ", "D "}, refused + "405, which this request cannot use.\r\n"},
        {"", status(416), {"C ", "D "}, refused + "416"},
        {"", status(204), {"C ", "D "}, refused + "204"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE("content " + r.content_fault + ", download " + r.download_fault);
        driver_.clear_events();
        if (!r.content_fault.empty())
            emulator().fault(R"({"method":"GET","path_regex":"^/2.0/files/)" + id_ +
                             R"(/content$",)" + r.content_fault + "}");
        if (!r.download_fault.empty())
            fault_download(r.download_fault);
        std::string reply = retrieve({{0, -1}});
        EXPECT_EQ(requests(), r.requests);
        expect_one_transfer(1);
        if (r.reply.empty()) {
            EXPECT_EQ(reply, "");
            expect_sent(0, pattern(file_size));
            continue;
        }
        const size_t at = isdigit(static_cast<unsigned char>(r.reply[0])) != 0
                              ? reply.rfind(r.reply, 0)
                              : reply.find(r.reply);
        EXPECT_NE(at, std::string::npos) << reply;
        if (r.content_fault.empty()) {
            EXPECT_NE(reply.find("-Box-Path: \"/d/f.bin\"\r\n"), std::string::npos) << reply;
            EXPECT_NE(reply.find(" Box-Download-Host: \"" + emulator().base_url()),
                      std::string::npos)
                << reply;
        }
        EXPECT_EQ(reply.find("/d/1/"), std::string::npos) << reply;
        EXPECT_EQ(driver_.sent_bytes(), 0u);
    }

    driver_.clear_events();
    EXPECT_EQ(retrieve({{0, -1}}, "/d/missing"),
              "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: \"/d/missing\"\r\n");
    EXPECT_EQ(requests(), strings{});
    expect_one_transfer(0);
}

/* A ranged request answered with the whole file (200) has the bytes before
 * the range skipped and those after it left out; a 206 from another byte
 * than asked is refused before any of it is written.  A resumed download
 * answered 200 so goes on where the data channel stopped. */
TEST_F(download_test, AnswersToRangesLandInPlace)
{
    std::string text;
    for (int i = 0; i < 300000; i++)
        text += static_cast<char>('a' + (i * 7 + i / 26) % 26);
    seed(R"([{"path":"/d/t.txt","content":")" + text + R"("}])");
    relist("/d");
    const std::string whole = R"("status":200,"body":")" + text + R"(")";
    const std::string shifted =
        R"("status":206,"headers":{"Content-Range":"bytes 0-299999/300000"},"body":")" + text +
        R"(")";
    const struct {
        const char *name;
        std::vector<std::string> faults;
        tarvex_off_t offset, length;
        const char *reply;
    } rows[] = {
        {"200 from 30 on", {whole}, 30, -1, ""},
        {"200 for 30 to 49", {whole}, 30, 20, ""},
        {"206 from elsewhere", {shifted}, 30, -1,
         "451-Box's partial answer does not start at the byte asked for.\r\n"},
        {"resumed, answered 200", {R"("truncate_after":150000)", whole}, 100, -1, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        driver_.clear_events();
        for (const std::string &fault : r.faults)
            fault_download(fault);
        std::string reply = retrieve({{r.offset, r.length}}, "/d/t.txt");
        EXPECT_EQ(reply.substr(0, strlen(r.reply)), r.reply) << reply.substr(0, 300);
        take_requests();
        if (r.reply[0] != '\0') {
            EXPECT_EQ(driver_.sent_bytes(), 0u);
            continue;
        }
        size_t length = r.length < 0 ? text.size() - r.offset : r.length;
        expect_sent(r.offset, text.substr(r.offset, length));
    }
}

} // namespace
} // namespace box_session_test
