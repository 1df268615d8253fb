/*
 * What the plug-in asks of Box, call by call, read from the emulator's
 * request log: the shape of every request with the pacing state it took,
 * the attempts each call makes, the commit's back-off, and the checksum's
 * ways around a failing property store or file-info request.
 */
#include <jansson.h>

#include <functional>
#include <mutex>
#include <sstream>

#include "box_session_support.h"
#include "config.h"
#include "metadata.h"
#include "pacing.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "retry.h"
#include "tarvex_box_raii.h"

namespace box_session_test {
namespace {

/* Paces as the file does, and notes which state took each slot and how
 * many requests the emulator had logged then: the request that follows is
 * the next one. */
struct recording_pacer : tarvex_box_pacing_s {
    recording_pacer(const char *state, std::map<size_t, std::string> *slots, std::mutex *m)
        : state_(state), slots_(slots), mutex_(m)
    {
    }
    tarvex_box_pacing_slot_t take_slot(tarvex_box_retry_t *retry) override
    {
        size_t next = emulator().log().size();
        {
            std::lock_guard lock(*mutex_);
            (*slots_)[next] = state_;
        }
        return tarvex_box_file_pacing().take_slot(retry);
    }
    const char *state_;
    std::map<size_t, std::string> *slots_;
    std::mutex *mutex_;
};

/* The fields every request for an item asks for, "ITEM" in the table. */
const std::string item_fields = "type,id,name,parent,size,content_modified_at,sha1";

std::vector<unsigned> waits;
void record_wait(unsigned seconds)
{
    waits.push_back(seconds);
}

class calls_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/d/a.txt","content":"alpha"},
                        {"path":"/d/sub","type":"folder"},
                        {"path":"/e","type":"folder"},
                        {"path":"/f.txt","content":"0123456789abcdefghij"}])");
        ASSERT_NE(start(), nullptr);
        session_->user_retry.store = &api_;
        session_->user_upload_retry.store = &upload_;
        tarvex_i_box_wait = record_wait;
        waits.clear();
        small_parts(2048, 1024);
    }
    void TearDown() override
    {
        session_->user_retry.store = nullptr;
        session_->user_upload_retry.store = nullptr;
        tarvex_i_box_wait = saved_wait_;
        session_test::TearDown();
    }

    /* Each request since the last call: method, path (Box ids as the
     * paths they stand for), query, the headers that matter, and the
     * pacing state it took ("-": none). */
    std::string shapes()
    {
        for (const auto &[path, id] : ids_)
            names_.emplace(id, "{" + path + "}");
        std::map<size_t, std::string> slots;
        {
            std::lock_guard lock(mutex_);
            slots.swap(slots_);
        }
        std::string out;
        size_t index = 0;
        for (const auto &e : take_requests()) {
            std::string line = e.method + " ", word;
            for (char c : e.path + "/") {
                if (c != '/') {
                    word += c;
                    continue;
                }
                bool number = !word.empty() && word.find_first_not_of("0123456789") == word.npos;
                line += (number && names_.count(word) ? names_[word] : word) + "/";
                word.clear();
            }
            line.pop_back();
            if (line.find("/upload_sessions/") != std::string::npos)
                line = line.substr(0, line.find("/upload_sessions/") + 17) + "S" +
                       (line.back() == 't' ? "/commit" : "");
            if (line.find(" /d/") != std::string::npos)
                line = line.substr(0, line.find(" /d/") + 4) + "L";
            for (const auto &[key, values] : e.query) {
                std::string value = key == "marker" || values.empty() ? "" : values[0];
                if (value.rfind(item_fields, 0) == 0)
                    value.replace(0, item_fields.size(), "ITEM");
                line += line.find('?') == std::string::npos ? '?' : '&';
                line.append(key).append("=").append(value);
            }
            for (const char *name : {"Content-Type", "Content-Range", "Range", "If-Match"}) {
                std::string value = e.header(name);
                if (value.rfind("multipart/form-data; boundary=tarvex_", 0) == 0)
                    value = "multipart/form-data; boundary=tarvex_UUID";
                if (!value.empty())
                    line += std::string(" | ") + name + ": " + value;
            }
            if (!e.header("digest").empty())
                line += " | digest";
            line += " [" + (slots.count(index) ? slots[index] : std::string("-")) + "]";
            index++;
            out += line + "\n";
        }
        return out;
    }
    std::string store(const std::string &path, uint64_t size, time_t modtime = -1)
    {
        tarvex_test::driver d;
        d.set_recv_modification_time(modtime);
        std::string reply = store_pattern(d, path, size);
        tarvex_box_json_ptr item(json_loads(emulator().item(path).c_str(), 0, nullptr));
        if (const char *id = json_string_value(json_object_get(item.get(), "id")))
            names_[id] = "{" + path + "}";
        return reply;
    }
    std::string fetch(const std::string &path, tarvex_off_t offset, tarvex_off_t length)
    {
        tarvex_test::driver d;
        d.add_read_range(offset, length);
        std::string reply = take_reply(d.send(&box_table, session_, path));
        return reply.empty() ? d.sent_data() : reply;
    }
    std::map<std::string, std::string> ids_, names_; /* path -> id, id -> "{path}" */
    std::mutex mutex_;
    std::map<size_t, std::string> slots_;
    recording_pacer api_{"api", &slots_, &mutex_}, upload_{"upload", &slots_, &mutex_};
    void (*saved_wait_)(unsigned) = tarvex_i_box_wait;
};


/* Every kind of request the plug-in makes, one golden line each. */
TEST_F(calls_test, EveryRequestHasItsShapeAndPacingState)
{
    shapes();
    EXPECT_EQ(command(TARVEX_GFS_CMD_MKD, "/d/new"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/b.txt", "/d/a.txt"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/e/sub", "/d/sub"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_CKSM, "/f.txt", "", "MD5"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_CKSM, "/f.txt", "", "SHA1", 10, -1), "");
    EXPECT_EQ(fetch("/d/b.txt", 1, 3), std::string("\0lph", 4));
    /* A folder is not refused before the request: Box's answer is. */
    EXPECT_EQ(fetch("/d", 0, -1).rfind("550-PATH_NOT_FOUND\r\n", 0), 0u);
    EXPECT_EQ(store("/d/one.bin", 100), "");
    EXPECT_EQ(store("/d/two.bin", 3000, 1500000000), "");
    /* The client's time goes in the commit's attributes. */
    EXPECT_NE(emulator().item("/d/two.bin").find(R"("content_modified_at":"2017-07-13T19:40:00-07:00")"),
              std::string::npos) << emulator().item("/d/two.bin");
    tarvex_i_box_replace = TARVEX_BOX_REPLACE_NEW_VERSION;
    EXPECT_EQ(store("/d/one.bin", 100), "");
    EXPECT_EQ(store("/d/two.bin", 3000), "");
    tarvex_i_box_replace = TARVEX_BOX_REPLACE_DELETE_FIRST;
    EXPECT_EQ(store("/d/one.bin", 100), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_RMD, "/e/sub"), "");
    EXPECT_EQ(command(TARVEX_GFS_CMD_SITE_RDEL, "/e"), "");
    EXPECT_EQ(shapes(), R"(GET /2.0/folders/{/d}/items?fields=ITEM&limit=300&usemarker=true [api]
POST /2.0/folders?fields=ITEM | Content-Type: application/json; [api]
PUT /2.0/files/{/d/a.txt}?fields=ITEM | Content-Type: application/json; [api]
GET /2.0/folders/{/e}/items?fields=ITEM&limit=300&usemarker=true [api]
PUT /2.0/folders/{/d/sub}?fields=ITEM | Content-Type: application/json; [api]
GET /2.0/files/{/f.txt}/?fields=ITEM,metadata.global.properties [api]
GET /2.0/files/{/f.txt}/content [api]
GET /d/L [api]
POST /2.0/files/{/f.txt}/metadata/global/properties | Content-Type: application/json [api]
GET /2.0/files/{/f.txt}/content | Range: bytes=10- [api]
GET /d/L | Range: bytes=10- [api]
GET /2.0/files/{/d/a.txt}/content | Range: bytes=1-3 [api]
GET /d/L | Range: bytes=1-3 [-]
GET /2.0/files/{/d}/content [api]
POST /api/2.0/files/content?fields=ITEM | Content-Type: multipart/form-data; boundary=tarvex_UUID [upload]
POST /api/2.0/files/upload_sessions | Content-Type: application/json [upload]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 0-1023/3000 | digest [-]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 1024-2047/3000 | digest [-]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 2048-2999/3000 | digest [-]
POST /api/2.0/files/upload_sessions/S/commit?fields=ITEM | Content-Type: application/json | digest [-]
POST /2.0/files/{/d/two.bin}/metadata/global/properties | Content-Type: application/json [api]
POST /api/2.0/files/{/d/one.bin}/content?fields=ITEM | Content-Type: multipart/form-data; boundary=tarvex_UUID [upload]
GET /2.0/files/{/d/one.bin}/?fields=ITEM,metadata.global.properties [api]
POST /2.0/files/{/d/one.bin}/metadata/global/properties | Content-Type: application/json [api]
POST /api/2.0/files/{/d/two.bin}/upload_sessions | Content-Type: application/json [upload]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 0-1023/3000 | digest [-]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 1024-2047/3000 | digest [-]
PUT /api/2.0/files/upload_sessions/S | Content-Type: application/octet-stream | Content-Range: bytes 2048-2999/3000 | digest [-]
POST /api/2.0/files/upload_sessions/S/commit?fields=ITEM | Content-Type: application/json | digest [-]
GET /2.0/files/{/d/two.bin}/?fields=ITEM,metadata.global.properties [api]
PUT /2.0/files/{/d/two.bin}/metadata/global/properties | Content-Type: application/json-patch+json [api]
DELETE /2.0/files/{/d/one.bin} [api]
POST /api/2.0/files/content?fields=ITEM | Content-Type: multipart/form-data; boundary=tarvex_UUID [upload]
DELETE /2.0/folders/{/d/sub} [api]
DELETE /2.0/folders/{/e}?recursive=true [api]
)");
}

/* Each call's attempts, all of one pacing state, and the last failure's
 * reply: a dropped connection costs an attempt; listings, folder creation,
 * renames and property stores make two, one-request uploads one, session
 * creation and each part three. */
TEST_F(calls_test, AttemptsOfEachCall)
{
    ASSERT_EQ(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr), TARVEX_SUCCESS);
    tarvex_box_path_info_t *f = nullptr;
    ASSERT_EQ(tarvex_box_path_resolve(session_, "/f.txt", &f, nullptr), TARVEX_SUCCESS);
    const std::string items = "^/2.0/folders/" + ids_["/d/sub"] + "/items$";
    const struct {
        const char *name, *method;
        std::string path;
        const char *line; /* in the call's requests */
        int drops;
        std::function<std::string()> call;
        std::string want; /* requests of the call: count x state, then "ok" or "failed" */
    } rows[] = {
        {"listing", "GET", items, "/items?", 2,
         [&] { return take_reply(tarvex_box_path_resolve(session_, "/d/sub/x", nullptr, nullptr)); },
         "2 x api, failed"},
        {"folder", "POST", "^/2.0/folders$", "POST /2.0/folders?", 1, [&] { return command(TARVEX_GFS_CMD_MKD, "/m1"); },
         "2 x api, ok"},
        {"folder", "POST", "^/2.0/folders$", "POST /2.0/folders?", 2, [&] { return command(TARVEX_GFS_CMD_MKD, "/m2"); },
         "2 x api, failed"},
        {"rename", "PUT", "^/2.0/files/", "PUT /2.0/files/", 2,
         [&] { return command(TARVEX_GFS_CMD_RNTO, "/f2.txt", "/f.txt"); }, "2 x api, failed"},
        {"property", "POST", "/metadata/", "/metadata/", 2,
         [&] { return take_reply(tarvex_i_box_set_metadata(session_, f, "k", "v")); },
         "2 x api, failed"},
        {"one request", "POST", "^/api/2.0/files/content$", "POST /api/2.0/files/content?", 1, [&] { return store("/d/u", 100); },
         "1 x upload, failed"},
        {"session", "POST", "upload_sessions$", "upload_sessions |", 2, [&] { return store("/d/s1", 3000); },
         "3 x upload, ok"},
        {"session", "POST", "upload_sessions$", "upload_sessions |", 3, [&] { return store("/d/s2", 3000); },
         "3 x upload, failed"},
        {"part", "PUT", "upload_sessions/[^/]+$", "/S |", 2, [&] { return store("/d/p1", 3000); },
         "5 x -, ok"},
        {"part", "PUT", "upload_sessions/[^/]+$", "/S |", 3, [&] { return store("/d/p2", 3000); },
         "3 x -, failed"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.name) + ", drops: " + std::to_string(r.drops));
        shapes();
        fault(r.method, r.path, r.drops, R"("drop":true)");
        std::string reply = r.call();
        std::string state, counted;
        size_t count = 0;
        std::istringstream lines(shapes());
        for (std::string line; std::getline(lines, line);) {
            if (line.find(r.line) == std::string::npos)
                continue;
            count++;
            state = line.substr(line.rfind('[') + 1, line.size() - line.rfind('[') - 2);
        }
        EXPECT_EQ(std::to_string(count) + " x " + state + ", " + (reply.empty() ? "ok" : "failed"),
                  r.want)
            << reply;
        emulator().control("DELETE", "/_emulator/faults");
    }
}

/* While Box answers 202 the commit waits 1, 3, 7, then 15 s, whatever
 * Box's Retry-After says, and after the fifth it gives up; the upload is
 * remembered for a restart. */
TEST_F(calls_test, CommitBacksOffWhileBoxIsAssembling)
{
    emulator().commit_pending(2, 30);
    EXPECT_EQ(store("/d/slow.bin", 3000), "");
    EXPECT_EQ(waits, (std::vector<unsigned>{1, 3}));
    waits.clear();
    emulator().commit_pending(5, 30);
    EXPECT_EQ(store("/d/never.bin", 3000), "451 Upload is not ready to commit.\r\n");
    EXPECT_EQ(waits, (std::vector<unsigned>{1, 3, 7, 15}));
    EXPECT_EQ(only(take_requests(), "POST", "/api/2.0/files/upload_sessions/", "/commit").size(),
              8u);
    EXPECT_TRUE(remembered("/d/never.bin"));
}

/* The MD5 is answered however its property fares: a failed store keeps it
 * in the cache, and a failed file-info request falls back to the download
 * (a file with properties already gets them patched: the golden table's
 * new version of /d/two.bin). */
TEST_F(calls_test, ChecksumAroundFailingPropertyRequests)
{
    const std::string md5 = md5_of("0123456789abcdefghij");
    fault("POST", "/metadata/", -1, R"("status":403,"body":null)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_CKSM, "/f.txt", "", "MD5"), "");
    EXPECT_EQ(text_, md5);
    ASSERT_NE(cached("/f.txt"), nullptr);
    EXPECT_STREQ(cached("/f.txt")->md5, md5.c_str());
    EXPECT_EQ(emulator().item("/f.txt").find(md5), std::string::npos);
    shapes();
    EXPECT_EQ(command(TARVEX_GFS_CMD_CKSM, "/f.txt", "", "MD5"), "");
    EXPECT_EQ(text_, md5);
    EXPECT_EQ(shapes(), "");
    emulator().control("DELETE", "/_emulator/faults");

    fault("GET", "^/2.0/files/[0-9]+/$", -1, R"("status":500,"body":null)");
    EXPECT_EQ(command(TARVEX_GFS_CMD_CKSM, "/d/a.txt", "", "MD5"), "");
    EXPECT_EQ(text_, md5_of("alpha"));
    emulator().control("DELETE", "/_emulator/faults");
    std::string log = shapes();
    EXPECT_NE(log.find("GET /d/L [api]\nPOST /2.0/files/{/d/a.txt}/metadata"), std::string::npos)
        << log;
}

} // namespace
} // namespace box_session_test
