#include "box_emulator.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <jansson.h>
#include <signal.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#ifndef TARVEX_BOX_EMULATOR
#error "TARVEX_BOX_EMULATOR must name tools/box-emulator/box_emulator.py"
#endif
#ifndef TARVEX_PYTHON3
#define TARVEX_PYTHON3 "python3"
#endif

namespace tarvex_test {

namespace {

using json_ref = std::unique_ptr<json_t, decltype([](json_t *doc) { json_decref(doc); })>;

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error("box emulator: " + what);
}

json_ref parse(const std::string &text, const std::string &what)
{
    json_error_t error;
    json_ref doc(json_loadb(text.data(), text.size(), 0, &error));
    if (!doc)
        fail(what + ": answer is not JSON: " + error.text);
    return doc;
}

std::string string_of(json_t *value)
{
    const char *s = json_string_value(value);
    return s ? s : "";
}

uint64_t number_of(json_t *value)
{
    return json_is_integer(value) ? static_cast<uint64_t>(json_integer_value(value)) : 0;
}

double real_of(json_t *value)
{
    return json_is_number(value) ? json_number_value(value) : 0;
}

size_t collect(char *data, size_t size, size_t count, void *user)
{
    static_cast<std::string *>(user)->append(data, size * count);
    return size * count;
}

std::string url_escape(const std::string &text)
{
    char *escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
    std::string out = escaped != nullptr ? escaped : "";
    curl_free(escaped);
    return out;
}

} // namespace

std::string BoxEmulator::LogEntry::header(const std::string &name) const
{
    for (const auto &[key, value] : headers)
        if (strcasecmp(key.c_str(), name.c_str()) == 0)
            return value;
    return "";
}

BoxEmulator::BoxEmulator()
{
    static std::once_flag curl_once;
    std::call_once(curl_once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    char tmpl[] = "/tmp/tarvex-box-emulator-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        fail(std::string("mkdtemp: ") + strerror(errno));
    dir_ = tmpl;
    try {
        spawn();
        wait_listening();
        curl_ = curl_easy_init();
        if (curl_ == nullptr)
            fail("curl_easy_init failed");
    } catch (...) {
        stop();
        throw;
    }
}

BoxEmulator::~BoxEmulator()
{
    stop();
}

void BoxEmulator::stop()
{
    if (curl_ != nullptr) {
        curl_easy_cleanup(static_cast<CURL *>(curl_));
        curl_ = nullptr;
    }
    // Killed outright: what it holds is in dir_, removed below, and a
    // request a test left stalled would hold up an orderly exit.
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    if (!dir_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
        dir_.clear();
    }
}

void BoxEmulator::spawn()
{
    const std::string port_file = dir_ + "/port", data_dir = dir_ + "/data";
    const char *const argv[] = {
        TARVEX_PYTHON3, TARVEX_BOX_EMULATOR, "--host",     "127.0.0.1",      "--port",  "0",
        "--port-file",  port_file.c_str(),   "--data-dir", data_dir.c_str(), "--quiet", nullptr};

    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        fail(std::string("fork: ") + strerror(errno));
    if (pid_ == 0) {
        // An emulator must not outlive a test program that crashed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(0);
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0)
            dup2(null, 1);  // the "listening" line; the port file says the same
        execvp(argv[0], const_cast<char *const *>(argv));
        _exit(127);
    }
}

void BoxEmulator::wait_listening()
{
    const std::string port_file = dir_ + "/port";
    /* Only a guard against an emulator that never comes up: a starved
     * machine can take many seconds to start a Python program. */
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
        std::ifstream in(port_file);
        if (in && (in >> port_) && port_ > 0)
            break;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            fail("the emulator exited before listening (status " + std::to_string(status) + ")");
        }
        if (std::chrono::steady_clock::now() > deadline)
            fail("the emulator did not listen within 120 s");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    base_url_ = "http://127.0.0.1:" + std::to_string(port_);
}

long BoxEmulator::request(const std::string &method, const std::string &path,
                          const std::string &body, std::string &answer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    CURL *curl = static_cast<CURL *>(curl_);
    curl_easy_reset(curl);
    std::string url = base_url_ + path;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    if (method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    CURLcode rc = curl_easy_perform(curl);
    if (rc != CURLE_OK)
        fail(method + " " + path + ": " + curl_easy_strerror(rc));
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

std::string BoxEmulator::control(const std::string &method, const std::string &path,
                                 const std::string &body)
{
    std::string answer;
    long status = request(method, path, body, answer);
    if (status != 200)
        fail(method + " " + path + " answered " + std::to_string(status) + ": " + answer);
    return answer;
}

void BoxEmulator::reset()
{
    control("POST", "/_emulator/reset");
}

std::map<std::string, std::string> BoxEmulator::seed(const std::string &json)
{
    json_ref doc(parse(control("POST", "/_emulator/seed", json), "seed"));
    std::map<std::string, std::string> ids;
    const char *path;
    json_t *id;
    json_object_foreach(json_object_get(doc.get(), "ids"), path, id) ids[path] = string_of(id);
    return ids;
}

void BoxEmulator::fault(const std::string &json)
{
    control("POST", "/_emulator/faults", json);
}

std::vector<BoxEmulator::LogEntry> BoxEmulator::log()
{
    json_ref doc(parse(control("GET", "/_emulator/log"), "log"));
    std::vector<LogEntry> entries;
    size_t index;
    json_t *e;
    json_array_foreach(doc.get(), index, e)
    {
        LogEntry entry;
        entry.method = string_of(json_object_get(e, "method"));
        entry.path = string_of(json_object_get(e, "path"));
        const char *key;
        json_t *value;
        json_object_foreach(json_object_get(e, "query"), key, value) {
            auto &values = entry.query[key];
            size_t i;
            json_t *v;
            json_array_foreach(value, i, v) values.push_back(string_of(v));
        }
        json_object_foreach(json_object_get(e, "headers"), key, value) entry.headers[key] =
            string_of(value);
        entry.status = static_cast<int>(number_of(json_object_get(e, "status")));
        entry.started = real_of(json_object_get(e, "started"));
        entry.ended = real_of(json_object_get(e, "ended"));
        entries.push_back(std::move(entry));
    }
    return entries;
}

void BoxEmulator::clear_log()
{
    control("DELETE", "/_emulator/log");
}

BoxEmulator::Concurrency BoxEmulator::concurrency(const std::string &method,
                                                  const std::string &path_regex)
{
    json_ref doc(parse(control("GET", "/_emulator/concurrency?method=" + url_escape(method) +
                                          "&path_regex=" + url_escape(path_regex)),
                       "concurrency"));
    Concurrency answer;
    answer.peak = static_cast<int>(number_of(json_object_get(doc.get(), "peak")));
    answer.open = static_cast<int>(number_of(json_object_get(doc.get(), "open")));
    answer.count = static_cast<int>(number_of(json_object_get(doc.get(), "count")));
    return answer;
}

std::string BoxEmulator::item(const std::string &path)
{
    std::string answer;
    long status = request("GET", "/_emulator/item?path=" + url_escape(path), "", answer);
    if (status == 404)
        return "";
    if (status != 200)
        fail("item " + path + " answered " + std::to_string(status) + ": " + answer);
    return answer;
}

std::string BoxEmulator::content(const std::string &path)
{
    return control("GET", "/_emulator/content?path=" + url_escape(path));
}

std::vector<BoxEmulator::TreeEntry> BoxEmulator::tree()
{
    json_ref doc(parse(control("GET", "/_emulator/tree"), "tree"));
    std::vector<TreeEntry> entries;
    size_t index;
    json_t *e;
    json_array_foreach(doc.get(), index, e)
    {
        TreeEntry entry;
        entry.path = string_of(json_object_get(e, "path"));
        entry.type = string_of(json_object_get(e, "type"));
        entry.size = number_of(json_object_get(e, "size"));
        entry.sha1 = string_of(json_object_get(e, "sha1"));
        entry.md5 = string_of(json_object_get(e, "tarvex-md5"));
        entries.push_back(std::move(entry));
    }
    return entries;
}

void BoxEmulator::commit_pending(int count, int retry_after)
{
    control("POST", "/_emulator/commit_pending",
            "{\"count\":" + std::to_string(count) +
                ",\"retry_after\":" + std::to_string(retry_after) + "}");
}

void BoxEmulator::config(const std::string &json)
{
    control("POST", "/_emulator/config", json);
}

} // namespace tarvex_test
