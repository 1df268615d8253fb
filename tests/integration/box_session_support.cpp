#include "box_session_support.h"

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace box_session_test {
namespace {

class environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        home_dot_existed();
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
        tarvex_box_set_bases(emulator().api_base().c_str(), emulator().upload_base().c_str());
        char pattern[] = "/tmp/box_session_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        scratch_ = pattern;
        retry_path_ = scratch_ + "/box-r";
        tarvex_i_box_retry_path = retry_path_.c_str();
    }
    void TearDown() override
    {
        tarvex_module_deactivate(&tarvex_i_box_common_module);
        std::filesystem::remove_all(scratch_);
        if (!home_dot_existed())
            rmdir(home_dot().c_str()); /* only when empty */
    }

private:
    std::string scratch_, retry_path_;
};

[[maybe_unused]] ::testing::Environment *const registered =
    ::testing::AddGlobalTestEnvironment(new environment);

tarvex_object_t *ftp_error(tarvex_result_t result)
{
    return tarvex_gfs_ftp_response_error_find(tarvex_error_peek(result));
}

std::string text(const char *value) { return value ? value : ""; }

} // namespace

std::string creds_json(const std::string &user_id)
{
    return R"({"access_token":"test-token","token_expiry":"2099-01-01T00:00:00.000000+00:00",)"
           R"("sub":")" + user_id + R"(","max_upload":53687091200})";
}

const tarvex_gfs_storage_iface_t *iface()
{
    static tarvex_gfs_storage_iface_t table = {};
    table.init_func = tarvex_i_box_start;
    table.destroy_func = tarvex_i_box_destroy;
    table.stat_func = tarvex_i_box_stat;
    return &table;
}

tarvex_test::BoxEmulator &emulator()
{
    static tarvex_test::BoxEmulator instance;
    return instance;
}

std::string home_dot()
{
    const struct passwd *pw = getpwuid(getuid());
    return text(pw ? pw->pw_dir : nullptr) + "/.tarvex";
}

bool home_dot_existed()
{
    static const bool existed = access(home_dot().c_str(), F_OK) == 0;
    return existed;
}

std::string listed_folder(const log_entry &entry)
{
    const std::string head = "/2.0/folders/", tail = "/items", &path = entry.path;
    if (entry.method != "GET" || path.size() <= head.size() + tail.size() ||
        path.compare(0, head.size(), head) != 0 ||
        path.compare(path.size() - tail.size(), tail.size(), tail) != 0)
        return "";
    return path.substr(head.size(), path.size() - head.size() - tail.size());
}

int error_code(tarvex_result_t r) { return tarvex_gfs_ftp_response_error_get_code(ftp_error(r)); }
std::string error_class(tarvex_result_t r)
{
    return text(tarvex_gfs_ftp_response_error_get_class(ftp_error(r)));
}
std::string error_message(tarvex_result_t r)
{
    return text(tarvex_gfs_ftp_response_error_get_message(ftp_error(r)));
}
std::string message(tarvex_result_t r) { return text(tarvex_error_get_message(tarvex_error_peek(r))); }

void session_test::SetUp()
{
    emulator().reset();
    driver_->set_config("config", "{}");
}

void session_test::TearDown()
{
    if (session_ != nullptr)
        driver_->destroy(iface(), session_);
}

std::map<std::string, std::string> session_test::seed(const std::string &entries)
{
    return emulator().seed(R"({"entries":)" + entries + "}");
}

tarvex_box_session_t *session_test::start(const std::string &user_id)
{
    driver_->set_config("creds", creds_json(user_id));
    session_ = static_cast<tarvex_box_session_t *>(driver_->start(iface(), "alice"));
    return session_;
}

std::vector<log_entry> session_test::requests()
{
    std::vector<log_entry> log = emulator().log();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        std::vector<log_entry> again = emulator().log();
        if (again.size() == log.size())
            return again;
        log = std::move(again);
    }
}

void session_test::clear_requests()
{
    requests();
    emulator().clear_log();
}

strings session_test::listings()
{
    strings folders;
    for (const auto &entry : requests())
        folders.push_back(listed_folder(entry));
    emulator().clear_log();
    return folders;
}

void session_test::script_page(const std::string &id, const std::string &page)
{
    emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/)" + id +
                     R"(/items$","count":1,"status":200,"body":)" + page + "}");
}

} // namespace box_session_test
