#include "box_session_support.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <chrono>
#include <thread>

namespace box_session_test {

namespace {

/* Activates the plug-in's runtime once, points it at the emulator and
 * keeps its pacing files out of the real home directory. */
class environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        home_dot_existed();
        ASSERT_EQ(tarvex_module_activate(&tarvex_i_box_common_module), 0);
        emulator();
        tarvex_box_set_bases(emulator().api_base().c_str(), emulator().upload_base().c_str());
        retry_path_ = scratch() + "/box-r";
        tarvex_i_box_retry_path = retry_path_.c_str();
    }
    void TearDown() override
    {
        tarvex_module_deactivate(&tarvex_i_box_common_module);
        /* Every session start makes "$HOME/.tarvex"; leave the home as we
         * found it (only an empty directory is removed). */
        if (!home_dot_existed())
            rmdir(home_dot().c_str());
    }

private:
    std::string retry_path_;
};

[[maybe_unused]] ::testing::Environment *const registered =
    ::testing::AddGlobalTestEnvironment(new environment);

tarvex_object_t *ftp_error(tarvex_result_t result)
{
    return tarvex_gfs_ftp_response_error_find(tarvex_error_peek(result));
}

} // namespace

std::string home_dot()
{
    const struct passwd *pw = getpwuid(getuid());
    return std::string(pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : "") + "/.tarvex";
}

bool home_dot_existed()
{
    static const bool existed = access(home_dot().c_str(), F_OK) == 0;
    return existed;
}

std::string creds_json(const std::string &user_id, const std::string &token)
{
    return R"({"access_token":")" + token +
           R"(","token_expiry":"2099-01-01T00:00:00.000000+00:00","sub":")" + user_id +
           R"(","max_upload":53687091200})";
}

const tarvex_gfs_storage_iface_t *iface()
{
    static const tarvex_gfs_storage_iface_t table = [] {
        tarvex_gfs_storage_iface_t t = {};
        t.descriptor = TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING;
        t.init_func = tarvex_i_box_start;
        t.destroy_func = tarvex_i_box_destroy;
        t.stat_func = tarvex_i_box_stat;
        return t;
    }();
    return &table;
}

tarvex_test::BoxEmulator &emulator()
{
    static tarvex_test::BoxEmulator instance;
    return instance;
}

const std::string &scratch()
{
    static const std::string dir = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "box_session_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        return pattern;
    }();
    static const struct remover {
        ~remover() { std::filesystem::remove_all(dir); }
    } remove_at_exit;
    return dir;
}

std::string listed_folder(const log_entry &entry)
{
    static const std::string head = "/2.0/folders/", tail = "/items";
    const std::string &path = entry.path;
    if (entry.method != "GET" || path.size() <= head.size() + tail.size() ||
        path.compare(0, head.size(), head) != 0 ||
        path.compare(path.size() - tail.size(), tail.size(), tail) != 0)
        return "";
    std::string id = path.substr(head.size(), path.size() - head.size() - tail.size());
    return id.find('/') == std::string::npos ? id : "";
}

std::vector<log_entry> settled_log()
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
    settled_log();
    emulator().clear_log();
}

int error_code(tarvex_result_t result)
{
    return tarvex_gfs_ftp_response_error_get_code(ftp_error(result));
}

std::string error_class(tarvex_result_t result)
{
    const char *text = tarvex_gfs_ftp_response_error_get_class(ftp_error(result));
    return text != nullptr ? text : "";
}

std::string error_message(tarvex_result_t result)
{
    const char *text = tarvex_gfs_ftp_response_error_get_message(ftp_error(result));
    return text != nullptr ? text : "";
}

std::string message(tarvex_result_t result)
{
    const char *text = tarvex_error_get_message(tarvex_error_peek(result));
    return text != nullptr ? text : "";
}

void session_test::SetUp()
{
    emulator().reset();
    driver_->set_config("config", "{}");
}

void session_test::TearDown()
{
    if (session_ != nullptr)
        driver_->destroy(iface(), session_);
    session_ = nullptr;
}

std::map<std::string, std::string> session_test::seed(const std::string &entries_json)
{
    return emulator().seed(R"({"entries":)" + entries_json + "}");
}

tarvex_box_session_t *session_test::start(const std::string &user_id)
{
    driver_->set_config("creds", creds_json(user_id));
    session_ = static_cast<tarvex_box_session_t *>(driver_->start(iface(), "alice"));
    return session_;
}

} // namespace box_session_test
