/*
 * Downloads against the Box emulator: what each read range asks of Box,
 * how the content request and the download share their attempts, how
 * failures reach the client, and that a large file is streamed.
 */
#include <sys/resource.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "box_session_support.h"

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
    void fault_content(const std::string &fields)
    {
        emulator().fault(R"({"method":"GET","path_regex":"^/2.0/files/)" + id_ +
                         R"(/content$",)" + fields + "}");
    }
    static void fault_download(const std::string &fields)
    {
        emulator().fault(R"({"method":"GET","path_regex":"^/d/",)" + fields + "}");
    }
    /* Each request since the last call as "C" (content) or "D" (download)
     * and its "Range" value, e.g. "C bytes=100-". */
    static strings requests()
    {
        strings seen;
        for (const auto &e : take_requests()) {
            std::string kind = e.path.rfind("/d/", 0) == 0 ? "D" : "C";
            EXPECT_EQ(e.header("Authorization"), "Bearer test-token") << e.path;
            seen.push_back(kind + " " + e.header("Range"));
        }
        return seen;
    }
    /* The transfer was begun at most once and finished exactly once. */
    void expect_one_transfer(size_t begun)
    {
        EXPECT_EQ(driver_.events(event_kind::begin_transfer).size(), begun);
        EXPECT_EQ(driver_.events(event_kind::finished_transfer).size(), 1u);
    }
    /* The bytes sent are the file's from `offset` on, each sent once. */
    void expect_file_from(uint64_t offset, uint64_t length)
    {
        EXPECT_EQ(driver_.sent_bytes(), length);
        EXPECT_TRUE(driver_.sent_data().substr(offset) == pattern(length, offset));
        tarvex_off_t next = static_cast<tarvex_off_t>(offset);
        for (const auto &[at, size] : driver_.sent_writes()) {
            EXPECT_EQ(at, next) << "writes overlap or leave a hole";
            next = at + static_cast<tarvex_off_t>(size);
        }
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
        expect_file_from(r.from, r.length);
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
        expect_file_from(r.offset, length);
    }
}

/* The content request and the download have two attempts between them,
 * whether Box is busy or a connection is dropped. */
TEST_F(download_test, ContentAndDownloadShareTwoAttempts)
{
    const char *busy = R"("status":429,"body":null)";
    const char *cut = R"("truncate_after":1000)";
    const char *drop = R"("drop":true)";
    const struct {
        const char *content_fault, *download_fault;
        strings requests;
        const char *reply;
    } rows[] = {
        {nullptr, busy, {"C ", "D ", "D "}, ""},
        {busy, nullptr, {"C ", "C ", "D "}, ""},
        {busy, busy, {"C ", "C ", "D "}, "451 TOO_BUSY\r\n"},
        {busy, cut, {"C ", "C ", "D "}, "451 Transferred a partial file"},
        {drop, nullptr, {"C ", "C ", "D "}, ""},
        {nullptr, drop, {"C ", "D ", "D "}, ""},
        {drop, drop, {"C ", "C ", "D "}, "451"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string("content ") + (r.content_fault ? r.content_fault : "-") +
                     ", download " + (r.download_fault ? r.download_fault : "-"));
        driver_.clear_events();
        if (r.content_fault)
            fault_content(r.content_fault);
        if (r.download_fault)
            fault_download(r.download_fault);
        std::string reply = retrieve({{0, -1}});
        EXPECT_EQ(reply.substr(0, strlen(r.reply)), r.reply) << reply;
        EXPECT_EQ(reply.empty(), r.reply[0] == '\0') << reply;
        EXPECT_EQ(requests(), r.requests);
        if (reply.empty())
            expect_file_from(0, file_size);
        expect_one_transfer(1);
    }
}

TEST_F(download_test, FailuresAreReportedOnceAndNotRetried)
{
    const struct {
        const char *name, *content_fault, *download_fault;
        const char *reply; /* the start of the FTP reply */
        strings requests;
    } rows[] = {
        {"not found",
         R"("status":404,"body":{"type":"error","code":"not_found",
            "context_info":{"errors":[{"name":"f.bin"}]}})",
         nullptr, "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"f.bin\"\r\n", {"C "}},
        {"no Location", R"("status":302,"body":null)", nullptr,
         "Box named no download location for the file", {"C "}},
        {"download refused", nullptr, R"("status":503,"body":null)",
         "500 INTERNAL_ERROR\r\n", {"C ", "D "}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        driver_.clear_events();
        if (r.content_fault)
            fault_content(r.content_fault);
        if (r.download_fault)
            fault_download(r.download_fault);
        std::string reply = retrieve({{0, -1}});
        EXPECT_NE(reply.find(r.reply), std::string::npos) << reply;
        EXPECT_EQ(requests(), r.requests);
        EXPECT_EQ(driver_.sent_bytes(), 0u);
        expect_one_transfer(1);
    }
}

TEST_F(download_test, AMissingPathIsReportedBeforeTheTransferBegins)
{
    EXPECT_EQ(retrieve({{0, -1}}, "/d/missing"),
              "550-PATH_NOT_FOUND\r\n550 GridFTP-Path: \"/d/missing\"\r\n");
    EXPECT_EQ(requests(), strings{});
    expect_one_transfer(0);
}

long peak_rss_kib()
{
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/* A file much larger than any buffer goes through in order, and the
 * process's memory high-water mark grows by far less than the file. */
TEST_F(download_test, ALargeFileIsStreamed)
{
    constexpr uint64_t size = 48ull << 20;
    seed(R"([{"path":"/d/large.bin","size":)" + std::to_string(size) + "}]");
    driver_.use_digest_sink();
    driver_.set_record_progress(false);
    driver_.set_block_size(0); /* the REST client's own buffer size */
    const long peak_before = peak_rss_kib();

    /* /d was listed before the file was added: list it again. */
    tarvex_box_path_info_t *folder = tarvex_box_path_cache_query(&session_->cache, "/d");
    ASSERT_NE(folder, nullptr);
    folder->listed = false;
    EXPECT_EQ(retrieve({{0, -1}}, "/d/large.bin"), "");

    EXPECT_EQ(driver_.sink_error(), "");
    EXPECT_EQ(driver_.sent_bytes(), size);
    EXPECT_EQ(driver_.sent_digest(), tarvex_test::pattern_digest(size));
    EXPECT_LT(peak_rss_kib() - peak_before, static_cast<long>(size / 1024 / 2));
}

} // namespace
} // namespace box_session_test
