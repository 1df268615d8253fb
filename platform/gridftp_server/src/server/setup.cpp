#include "setup.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>

#include "config_data.h"
#include "conn.h"
#include "log.h"
#include "session.h"
#include "tls.h"

namespace tarvex_server {

namespace {

// Loading the plug-in and checking its data takes milliseconds; a check
// that has not ended by then hangs, and the setup is not usable.
constexpr int plugin_check_timeout_ms = 30000;

// ------------------------------------------- the plug-in's own checks
//
// The plug-in is loaded and its checkers run in a process of its own, as
// the listening process never runs plug-in code: whatever loading or
// checking does to a process stays in one that ends at once.  It reports
// on a pipe: one record for the load, then one for each data key.

enum Verdict : char {
    loaded = 'L',
    not_loaded = 'F',
    usable = 'K',
    refused = 'R',
    unchecked = 'U',
    checker_only = 'C', // unreadable data of a key the plug-in checks
    no_answer = 'N',    // (not sent) the child ended without a record
    too_late = 'T',     // (not sent) the child did not end in time
};

struct Record {
    Verdict verdict = unchecked;
    tarvex_gfs_config_place_t place{};
    std::string message;
};

void put_record(std::string &out, const Record &r)
{
    out += static_cast<char>(r.verdict);
    out.append(reinterpret_cast<const char *>(&r.place), sizeof r.place);
    auto n = static_cast<uint32_t>(r.message.size());
    out.append(reinterpret_cast<const char *>(&n), sizeof n);
    out += r.message;
}

bool take_record(std::string_view &in, Record &r)
{
    uint32_t n = 0;
    size_t head = 1 + sizeof r.place + sizeof n;
    if (in.size() < head)
        return false;
    r.verdict = static_cast<Verdict>(in[0]);
    memcpy(&r.place, in.data() + 1, sizeof r.place);
    r.place.key[sizeof r.place.key - 1] = '\0';
    memcpy(&n, in.data() + 1 + sizeof r.place, sizeof n);
    if (in.size() - head < n)
        return false;
    r.message.assign(in.data() + head, n);
    in.remove_prefix(head + n);
    return true;
}

// The message of the outermost error of `result`, which is released.
std::string message_of(tarvex_result_t result)
{
    const tarvex_object_t *error = tarvex_error_peek(result);
    const char *text = error != nullptr ? tarvex_gfs_ftp_response_error_get_message(error) : nullptr;
    if (text == nullptr && error != nullptr)
        text = tarvex_error_get_message(error);
    std::string message = text != nullptr ? text : "refused";
    tarvex_error_discard(result);
    while (!message.empty() && message.back() == '\n')
        message.pop_back();
    return message;
}

// The data of each --config-file key, or none when its file is unreadable.
using Texts = std::map<std::string, std::optional<std::string>>;

[[noreturn]] void check_in_child(int fd, const Options &opts, const std::string &plugin_path,
                                 const Texts &texts)
{
    std::string out;
    tarvex_extension_set_search_path(plugin_path.c_str());
    const tarvex_gfs_storage_iface_t *iface = tarvex_gfs_dsi_load(opts.dsi.c_str());
    if (iface == nullptr || iface->init_func == nullptr) {
        const char *why = iface == nullptr ? tarvex_extension_last_error() : "no start function";
        put_record(out, {not_loaded, {}, why != nullptr ? why : ""});
    } else {
        put_record(out, {loaded, {}, ""});
        for (const auto &[key, text] : texts) {
            const tarvex_gfs_config_checker_t *checker =
                tarvex_gfs_config_checker_find(opts.dsi.c_str(), key.c_str());
            Record r;
            if (checker != nullptr && checker->check != nullptr && !text) {
                r.verdict = checker_only;
            } else if (checker != nullptr && checker->check != nullptr) {
                tarvex_result_t result = checker->check(text->c_str(), &r.place);
                r.verdict = result == TARVEX_SUCCESS ? usable : refused;
                if (result != TARVEX_SUCCESS)
                    r.message = message_of(result);
            }
            put_record(out, r);
        }
    }
    for (std::string_view rest = out; !rest.empty();) {
        ssize_t n = write(fd, rest.data(), rest.size());
        if (n <= 0 && errno != EINTR)
            _exit(1);
        rest.remove_prefix(n > 0 ? static_cast<size_t>(n) : 0);
    }
    _exit(0);
}

// What the child wrote, until it ends or the time is up.
bool read_child(int fd, pid_t pid, std::string &in)
{
    long long deadline = now_ms() + plugin_check_timeout_ms;
    char buf[4096];
    bool ended = false;
    while (!ended) {
        long long left = deadline - now_ms();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || (poll(&p, 1, static_cast<int>(left)) == 0))
            break;
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        ended = n <= 0;
        if (n > 0)
            in.append(buf, static_cast<size_t>(n));
    }
    if (!ended)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// "PATH:LINE:COLUMN: key: message", as much of it as is known.
std::string place_text(const std::string &path, const Record &r)
{
    std::string out = path;
    if (r.place.line > 0) {
        out += ":" + std::to_string(r.place.line);
        if (r.place.column > 0)
            out += ":" + std::to_string(r.place.column);
    }
    out += ": ";
    if (r.place.key[0] != '\0')
        out += "\"" + log_field(r.place.key) + "\": ";
    return out + log_field(r.message);
}

// What the plug-in said of the data of `key` (file `path`, text or none
// when unreadable; `r.message` says why when unreadable).
void judge(const std::string &key, const std::string &path, std::optional<std::string> &text,
           const Record &r, Setup &setup, std::vector<std::string> &problems)
{
    std::string data = "configuration data \"" + key + "\"";
    switch (r.verdict) {
    case refused:
        problems.push_back(place_text(path, r) + " (" + data + ")");
        break;
    case usable:
        setup.found.push_back(data + " (" + path + "): checked by the plug-in, usable");
        setup.checked_data[key] = std::move(*text);
        break;
    case checker_only:
        problems.push_back(data + ": " + r.message);
        break;
    case no_answer:
    case too_late:
        problems.push_back(path + ": the plug-in's check of \"" + key + "\" did not " +
                           (r.verdict == no_answer ? "answer" : "end in time"));
        break;
    default:
        // Read at each use, as the file may come later (a credential
        // another program writes): only worth a warning now.
        if (text)
            setup.found.push_back(data + " (" + path +
                                  "): read at each login (the plug-in has no check)");
        else
            setup.warnings.push_back(data + ": " + r.message + " (read at each login)");
        break;
    }
}

// The plug-in loads, and the data of each --config-file file it checks is
// usable; that data goes to `setup` (read once, here).
void check_plugin(const Options &opts, const std::string &plugin_path, Setup &setup,
                  std::vector<std::string> &problems)
{
    Texts texts;
    std::map<std::string, std::string> unreadable;
    for (const auto &[key, path] : opts.config_files) {
        std::string text;
        if (read_config_data_file(path, text) == ConfigData::Status::found) {
            texts[key] = std::move(text);
        } else {
            texts[key] = std::nullopt;
            unreadable[key] = text;
        }
    }
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        problems.push_back(std::string("cannot check the plug-in: pipe: ") + strerror(errno));
        return;
    }
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        close(pipefd[0]);
        check_in_child(pipefd[1], opts, plugin_path, texts);
    }
    close(pipefd[1]);
    std::string in;
    bool ended = pid > 0 && read_child(pipefd[0], pid, in);
    close(pipefd[0]);
    std::string_view rest = in;
    Record load;
    if (!take_record(rest, load) || load.verdict != loaded) {
        problems.push_back("storage plug-in " + opts.dsi + " is not usable (search path: " +
                           plugin_path + ")" + (load.message.empty() ? "" : ": " + load.message));
        return;
    }
    setup.found.push_back("storage plug-in " + opts.dsi + ": loads (search path: " +
                          plugin_path + ")");
    for (auto &[key, text] : texts) {
        Record r;
        if (!take_record(rest, r))
            r.verdict = ended ? no_answer : too_late;
        if (!text)
            r.message = unreadable[key];
        judge(key, opts.config_files.at(key), text, r, setup, problems);
    }
}

void list_commands(const Options &opts, Setup &setup)
{
    for (const auto &[key, cmd] : opts.config_commands)
        if (opts.config_files.count(key) == 0)
            setup.found.push_back("configuration data \"" + key + "\": the command " +
                                  log_field(cmd) + " (run at each login)");
}

} // namespace

Setup::~Setup()
{
    SSL_CTX_free(tls);
}

std::unique_ptr<Setup> load_setup(const Options &opts, const std::string &plugin_path,
                                  std::vector<std::string> &problems)
{
    auto setup = std::make_unique<Setup>();
    setup->opts = opts;
    size_t before = problems.size();
    std::string err;
    if (!opts.passwd_file.empty()) {
        if (setup->passwords.load(opts.passwd_file, err))
            setup->found.push_back("password file " + opts.passwd_file + ": " +
                                   std::to_string(setup->passwords.logins()) + " login(s)");
        else
            problems.push_back("password file " + err);
    }
    if (!opts.tls_cert.empty()) {
        setup->tls = make_tls_context(opts.tls_cert, opts.tls_key, err);
        if (setup->tls != nullptr)
            setup->found.push_back("TLS certificate " + opts.tls_cert + ": " +
                                   describe_certificate(setup->tls) + "; key " + opts.tls_key +
                                   " matches it");
        else
            problems.push_back(err);
    }
    check_plugin(opts, plugin_path, *setup, problems);
    list_commands(opts, *setup);
    if (problems.size() != before)
        return nullptr;
    return setup;
}

bool restart_only(const std::string &key)
{
    // The listening sockets and the files and tables the listening process
    // opens once: a new value needs a restart.  (A setting a session reads
    // is taken by the next session.)
    // max-sessions sizes the TLS session registry; dsi-path made the
    // plug-in search path the sessions inherit.
    static const std::set<std::string> keys = {
        "port",           "bind",           "foreground",        "port-file",
        "transfer-log",   "audit-log",      "max-sessions",      "dsi-path",
        "implicit-tls-port", "implicit-tls-port-file", "metrics-listen", "metrics-port-file",
    };
    return keys.count(key) != 0;
}

namespace {

using Values = std::map<std::string, std::vector<std::string>>;

Values values_of(const std::vector<Setting> &settings)
{
    Values out;
    for (const Setting &s : settings)
        out[s.key].push_back(s.value);
    return out;
}

std::string joined(const Values &v, const std::string &key)
{
    auto it = v.find(key);
    if (it == v.end())
        return "(none)";
    std::string out;
    for (const std::string &value : it->second)
        out += (out.empty() ? "" : ", ") + value;
    return out;
}

bool on_command_line(int argc, char **argv, const std::string &key)
{
    std::string option = "--" + key;
    for (int i = 1; i < argc; ++i)
        if (option == argv[i])
            return true;
    return false;
}

// The new file's settings, with the old values of those only a restart
// changes.
std::vector<Setting> keep_restart_only(const std::vector<Setting> &old_settings,
                                       const std::vector<Setting> &new_settings)
{
    std::vector<Setting> out;
    for (const Setting &s : new_settings)
        if (!restart_only(s.key))
            out.push_back(s);
    for (const Setting &s : old_settings)
        if (restart_only(s.key))
            out.push_back(s);
    return out;
}

} // namespace

bool Configuration::start(const Options &opts, std::vector<std::string> &problems)
{
    current_ = load_setup(opts, plugin_path_, problems);
    return current_ != nullptr;
}

void Configuration::publish(ServerContext &ctx) const
{
    ctx.opts = &current_->opts;
    ctx.tls = current_->tls;
    ctx.passwords = &current_->passwords;
    ctx.checked_data = &current_->checked_data;
}

std::vector<std::string> Configuration::changes(const std::vector<Setting> &file,
                                                const Setup &next) const
{
    const Setup &old = *current_;
    std::vector<std::string> out;
    Values before = values_of(old.opts.file_settings);
    Values after = values_of(file);
    std::set<std::string> keys;
    for (const auto &[key, v] : before)
        keys.insert(key);
    for (const auto &[key, v] : after)
        keys.insert(key);
    for (const std::string &key : keys) {
        if (before[key] == after[key])
            continue;
        std::string line = key + ": " + joined(before, key) + " -> " + joined(after, key);
        if (restart_only(key))
            line += " (the old value stays until a restart)";
        else if (on_command_line(argc_, argv_, key))
            line += " (the command line's value stays)";
        out.push_back(line);
    }
    if (!(old.passwords == next.passwords))
        out.push_back("password file: " + std::to_string(next.passwords.logins()) +
                      " login(s), " + std::to_string(old.passwords.logins()) + " before");
    std::string cert_before = old.tls != nullptr ? describe_certificate(old.tls) : "none";
    std::string cert_after = next.tls != nullptr ? describe_certificate(next.tls) : "none";
    if (cert_before != cert_after)
        out.push_back("TLS certificate: " + cert_after);
    for (const auto &[key, text] : next.checked_data) {
        auto it = old.checked_data.find(key);
        if (it == old.checked_data.end() || it->second != text)
            out.push_back("configuration data \"" + key + "\": changed, checked by the plug-in");
    }
    return out;
}

bool Configuration::reload(ServerContext &ctx)
{
    // Relative names are the start folder's, though a server that detached
    // has gone to "/" since.
    struct InStartFolder {
        explicit InStartFolder(const std::string &dir)
        {
            char here[PATH_MAX];
            if (getcwd(here, sizeof here) != nullptr)
                back = here;
            if (dir.empty() || chdir(dir.c_str()) != 0)
                back.clear();
        }
        ~InStartFolder()
        {
            if (!back.empty() && chdir(back.c_str()) != 0) {
                // the folder went away: staying is all there is to do
            }
        }
        std::string back;
    } folder(start_dir_);
    const Options &old = current_->opts;
    const std::string keeps = "configuration not read again, the old one stays: ";
    std::vector<Setting> file;
    std::string err;
    if (!old.config_path.empty() && !read_config_file(old.config_path, file, err)) {
        log_server(keeps + log_field(err));
        return false;
    }
    Options opts;
    opts.config_path = old.config_path;
    if (parse_options_with(keep_restart_only(old.file_settings, file), argc_, argv_, opts, err) !=
        0) {
        log_server(keeps + log_field(err));
        return false;
    }
    std::vector<std::string> problems;
    std::unique_ptr<Setup> next = load_setup(opts, plugin_path_, problems);
    if (next == nullptr) {
        for (const std::string &problem : problems)
            log_server(keeps + log_field(problem));
        return false;
    }
    for (const std::string &warning : next->warnings)
        log_server("warning: " + log_field(warning));
    std::vector<std::string> changed = changes(file, *next);
    if (changed.empty())
        log_server("configuration read again: nothing changed");
    for (const std::string &line : changed)
        log_server("configuration read again: " + log_field(line));
    current_ = std::move(next);
    publish(ctx);
    return true;
}

} // namespace tarvex_server
