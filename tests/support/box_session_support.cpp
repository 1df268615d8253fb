#include "box_session_support.h"

#include <openssl/md5.h>
#include <openssl/sha.h>
#include <sys/stat.h>

#include <memory>

#include "box_scratch.h"
#include "command.h"
#include "common_module.h"
#include "config.h"
#include "destroy.h"
#include "path_cache.h"
#include "recv.h"
#include "send.h"
#include "start.h"
#include "stat.h"

namespace box_session_test {
namespace {

class environment : public ::testing::Environment {
    void SetUp() override
    {
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
        tarvex_box_set_bases(emulator().api_base().c_str(), emulator().upload_base().c_str());
        scratch_ = std::make_unique<tarvex_test::box_scratch>();
        const std::string home = scratch_->dir() + "/home";
        ASSERT_EQ(mkdir(home.c_str(), 0700), 0);
        home_ = std::make_unique<tarvex_test::box_home>(home);
    }
    void TearDown() override
    {
        home_.reset();
        scratch_.reset();
        tarvex_module_deactivate(&tarvex_i_box_common_module);
    }
    std::unique_ptr<tarvex_test::box_scratch> scratch_;
    std::unique_ptr<tarvex_test::box_home> home_;
};

[[maybe_unused]] ::testing::Environment *const registered =
    ::testing::AddGlobalTestEnvironment(new environment);

/* Box's own threshold, which small_parts() lowers for one test. */
const int default_chunked_minimum = tarvex_i_box_chunked_minimum;

std::string hex(const unsigned char *digest, size_t length)
{
    std::string out;
    for (size_t i = 0; i < length; i++)
        out += "0123456789abcdef"[digest[i] >> 4], out += "0123456789abcdef"[digest[i] & 15];
    return out;
}

} // namespace

const tarvex_gfs_storage_iface_t box_table = [] {
    tarvex_gfs_storage_iface_t t = {};
    t.init_func = tarvex_i_box_start;
    t.destroy_func = tarvex_i_box_destroy;
    t.stat_func = tarvex_i_box_stat;
    t.command_func = tarvex_i_box_command;
    t.send_func = tarvex_i_box_send;
    t.recv_func = tarvex_i_box_recv;
    return t;
}();

tarvex_test::BoxEmulator &emulator()
{
    static tarvex_test::BoxEmulator instance;
    return instance;
}

std::vector<log_entry> take_requests()
{
    std::vector<log_entry> log = emulator().log();
    emulator().clear_log();
    return log;
}

std::string take_reply(tarvex_result_t result)
{
    std::string reply = tarvex_test::ftp_reply(result);
    tarvex_error_discard(result);
    return reply;
}

strings listings()
{
    const std::string head = "/2.0/folders/", tail = "/items";
    strings folders;
    for (const auto &e : take_requests()) {
        const std::string &p = e.path;
        bool listing = e.method == "GET" && p.size() > head.size() + tail.size() &&
                       p.starts_with(head) && p.ends_with(tail);
        folders.push_back(listing ? p.substr(head.size(), p.size() - head.size() - tail.size())
                                  : "");
    }
    return folders;
}

strings requests_made()
{
    strings out;
    for (const auto &e : take_requests()) {
        std::string line = e.method + " " + e.path;
        for (const auto &[key, values] : e.query)
            if (key != "fields")
                line += (line.find('?') == std::string::npos ? "?" : "&") + key + "=" +
                        (values.empty() ? "" : values[0]);
        out.push_back(line);
    }
    return out;
}

std::vector<log_entry> only(const std::vector<log_entry> &log, const std::string &method,
                            const std::string &start, const std::string &end)
{
    std::vector<log_entry> out;
    for (const auto &e : log)
        if (e.method == method && e.path.starts_with(start) && e.path.ends_with(end))
            out.push_back(e);
    return out;
}

void fault(const std::string &method, const std::string &path_regex, int count,
           const std::string &how)
{
    emulator().fault(R"({"method":")" + method + R"(","path_regex":")" + path_regex +
                     R"(","count":)" + std::to_string(count) + "," + how + "}");
}

std::string md5_of(const std::string &data)
{
    unsigned char digest[MD5_DIGEST_LENGTH];
    MD5(reinterpret_cast<const unsigned char *>(data.data()), data.size(), digest);
    return hex(digest, sizeof digest);
}

std::string sha1_of(const std::string &data)
{
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(data.data()), data.size(), digest);
    return hex(digest, sizeof digest);
}

std::string session_test::command(tarvex_gfs_command_type_t type, const std::string &path,
                                  const std::string &from, const char *alg,
                                  tarvex_off_t offset, tarvex_off_t length)
{
    tarvex_gfs_command_info_t info{};
    info.command = type;
    info.pathname = const_cast<char *>(path.c_str());
    info.from_pathname = const_cast<char *>(from.c_str());
    info.cksm_alg = const_cast<char *>(alg);
    info.cksm_offset = offset;
    info.cksm_length = length;
    driver_.clear_events();
    tarvex_result_t result = driver_.command(&box_table, session_, info);
    auto answers = driver_.events(tarvex_test::event_kind::command);
    EXPECT_EQ(answers.size(), 1u) << path;
    text_ = answers.empty() ? std::nullopt : answers[0].text;
    return take_reply(result);
}

tarvex_box_path_info_t *session_test::cached(const std::string &path)
{
    return tarvex_box_path_cache_query(&session_->cache, path.c_str());
}

std::string session_test::store(tarvex_test::driver &d, const std::string &path,
                                tarvex_off_t alloc_size, bool truncate)
{
    d.clear_events();
    d.set_answer_timeout(answer_timeout);
    tarvex_error_discard(d.recv(&box_table, session_, path, alloc_size, truncate));
    auto finished = d.events(tarvex_test::event_kind::finished_transfer);
    EXPECT_EQ(finished.size(), 1u) << path;
    return finished.empty() ? "<no answer>" : finished[0].reply;
}

std::string session_test::store_pattern(tarvex_test::driver &d, const std::string &path,
                                        uint64_t total, uint64_t offset)
{
    d.set_receive_pattern(total - offset);
    if (offset != 0)
        d.add_write_range(static_cast<tarvex_off_t>(offset), -1);
    return store(d, path, static_cast<tarvex_off_t>(total), offset == 0);
}

void session_test::expect_sent(uint64_t offset, const std::string &bytes)
{
    EXPECT_EQ(driver_.sent_bytes(), bytes.size());
    EXPECT_TRUE(driver_.sent_data().substr(offset) == bytes);
    tarvex_off_t next = static_cast<tarvex_off_t>(offset);
    for (const auto &[at, size] : driver_.sent_writes()) {
        EXPECT_EQ(at, next) << "writes out of order, overlapping or leaving a hole";
        next = at + static_cast<tarvex_off_t>(size);
    }
}

void session_test::relist(const std::string &path)
{
    tarvex_box_path_info_t *folder = cached(path);
    ASSERT_NE(folder, nullptr) << path;
    folder->listed = false;
}

bool session_test::remembered(const std::string &path)
{
    return tarvex_box_upload_state_query(&session_->upload_state, path.c_str()) != nullptr;
}

void session_test::small_parts(int minimum, int part_size)
{
    tarvex_i_box_chunked_minimum = minimum;
    emulator().config(R"({"part_size":)" + std::to_string(part_size) + R"(,"min_session_size":0})");
}

void session_test::SetUp()
{
    emulator().reset();
    driver_.set_config("config", "{}");
    driver_.set_answer_timeout(answer_timeout);
}

void session_test::TearDown()
{
    if (session_ != nullptr)
        driver_.destroy(&box_table, session_);
    tarvex_i_box_chunked_minimum = default_chunked_minimum;
    tarvex_i_box_replace = TARVEX_BOX_REPLACE_DELETE_FIRST;
}

std::map<std::string, std::string> session_test::seed(const std::string &entries)
{
    return emulator().seed(R"({"entries":)" + entries + "}");
}

tarvex_box_session_t *session_test::start(const std::string &user_id)
{
    driver_.set_config("creds", R"({"access_token":"test-token","token_expiry":)"
                                R"("2099-01-01T00:00:00.000000+00:00","sub":")" +
                                    user_id + R"(","max_upload":53687091200})");
    session_ = static_cast<tarvex_box_session_t *>(driver_.start(&box_table, "alice"));
    if (session_ == nullptr)
        tarvex_error_discard(driver_.last_result()); /* its reply is in the event */
    return session_;
}

} // namespace box_session_test
