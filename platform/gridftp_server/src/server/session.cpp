#include "session.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "listener.h"
#include "log.h"
#include "mark_registry.h"
#include "parse.h"
#include "path.h"
#include "provider.h"
#include "tls.h"

namespace tarvex_server {

namespace {

// Commands a client may pipeline behind a running transfer; more than this
// and the client is not speaking FTP.
constexpr size_t max_pending_lines = 32;

// The reply to a command whose plug-in call the client aborted.
tarvex_result_t aborted_error()
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 426, nullptr, "%s", "Command aborted."));
}

} // namespace

Session::Session(int fd, const ServerContext &ctx, const Endpoints &ep, bool implicit_tls)
    : ctx_(ctx), opts_(*ctx.opts), ctl_(fd), ep_(ep),
      config_(ctx.opts->config_files, ctx.opts->config_commands,
              ctx.checked_data != nullptr ? *ctx.checked_data
                                          : std::map<std::string, std::string>{}),
      implicit_tls_(implicit_tls)
{
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    tls_session_mark_ = random_session_mark();
    mark_registry::started(tls_session_mark_);
}

Session::~Session()
{
    destroy_plugin_session();
    plugin_thread_.reset();
    if (wake_fd_ >= 0)
        close(wake_fd_);
}

void Session::wake()
{
    uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) < 0) {
        // a counter never fills up
    }
}

// Empties the wake counter, so the next poll blocks until the next wake().
void Session::drain_wake()
{
    uint64_t n;
    if (read(wake_fd_, &n, sizeof n) < 0) {
        // already empty
    }
}

void Session::call_finished(PluginCall &c, tarvex_result_t result)
{
    {
        std::lock_guard lock(mu_);
        if (c.finished) {
            // A second answer to one call is a plug-in bug; keep the first.
            tarvex_error_discard(result);
            return;
        }
        c.finished = true;
        c.result = result;
    }
    wake();
}

tarvex_result_t Session::config_data(const char *key, char **data)
{
    *data = nullptr;
    if (key == nullptr)
        return TARVEX_SUCCESS;
    std::string text;
    switch (config_.get(key, user_, text)) {
    case ConfigData::Status::none:
        return TARVEX_SUCCESS;
    case ConfigData::Status::found:
        *data = strdup(text.c_str());
        if (*data == nullptr)
            return TARVEX_GFS_MALLOC_ERROR(nullptr, ENOMEM);
        return TARVEX_SUCCESS;
    case ConfigData::Status::failed:
        log_session("configuration data " + log_field(key) + ": " + log_field(text));
        return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 451, "CONFIGURATION_ERROR",
            "Configuration data \"%s\" is not available.", key));
    }
    return TARVEX_SUCCESS;
}

bool Session::reply_line(int code, const std::string &text)
{
    return ctl_.send_raw(std::to_string(code) + " " + printable(text) + "\r\n");
}

void Session::set_checksum_support(const char *s)
{
    std::lock_guard lock(mu_);
    cksm_support_ = s != nullptr ? s : "";
}

// ---------------------------------------------------------------- the loop

void Session::run()
{
    log_session("connection from " + host_of(ep_.peer) + (implicit_tls_ ? " (implicit TLS)" : ""));
    // However busy a stranger keeps the connection, commands do not
    // extend its time (nor does a TLS handshake).
    login_deadline_ = now_ms() + opts_.login_timeout * 1000LL;
    if (implicit_tls_ && !start_implicit_tls())
        return;
    reply(220, "tarvex-gridftp-server ready.");
    const char *why = command_loop();
    if (logged_in_)
        log_session(log_field(user_) + " logged out (" + why + ")");
}

// Serves commands until the session ends; why it ended.
const char *Session::command_loop()
{
    while (!quit_ && !control_lost_) {
        std::string line;
        if (!pending_.empty()) {
            line = std::move(pending_.front());
            pending_.pop_front();
            dispatch(line);
            continue;
        }
        long long wait_ms = opts_.idle_timeout * 1000LL;
        bool login_due = !logged_in_ && login_deadline_ - now_ms() <= wait_ms;
        if (login_due)
            wait_ms = std::max(0LL, login_deadline_ - now_ms());
        ControlChannel::Event ev = ctl_.next(line, static_cast<int>(wait_ms), -1);
        switch (ev) {
        case ControlChannel::Event::line:
            dispatch(line);
            break;
        case ControlChannel::Event::too_long:
        case ControlChannel::Event::nul:
            reply_unreadable(ev);
            break;
        case ControlChannel::Event::timeout:
            if (login_due) {
                log_session("no login within " + std::to_string(opts_.login_timeout) + " s");
                reply(421, "Login time exceeded, closing control connection.");
                return "login timeout";
            }
            reply(421, "Idle timeout, closing control connection.");
            return "idle timeout";
        default:
            control_lost_ = true;
            break;
        }
    }
    if (!control_lost_)
        return "QUIT";
    return session_terminated_by_signal() ? "SIGTERM" : "connection closed";
}

// A line the control channel would not hand over as a command.
void Session::reply_unreadable(ControlChannel::Event ev)
{
    reply(500, ev == ControlChannel::Event::too_long ? "Command line too long."
                                                    : "NUL bytes are not allowed in commands.");
}

void Session::dispatch(const std::string &line)
{
    // The client has read the reply that retired the setup.
    retired_data_.reset();
    auto [verb, arg] = split_command(line);

    auto it = commands().find(verb);
    std::string why;
    if (it == commands().end()) {
        bool word = !verb.empty() && verb.size() <= 8;
        for (char ch : verb)
            word = word && isalpha(static_cast<unsigned char>(ch));
        reply(word ? 502 : 500, word ? "Command not implemented." : "Syntax error, command unrecognized.");
    } else if (it->second.needs_login && !logged_in_) {
        reply(530, "Please log in with USER and PASS.");
    } else if (it->second.needs_arg && arg.empty()) {
        reply(501, "Syntax error in parameters or arguments.");
    } else if (int code = verb != "PASS" ? check_argument(arg, why) : 0) {
        reply(code, why);
    } else {
        (this->*(it->second.fn))(arg);
    }
    if (abort_owed_) {
        // The command's own reply went first (426, or its result when it
        // had finished anyway); this one answers the ABOR.
        abort_owed_ = false;
        reply(226, "Abort successful.");
    }
    // RNTO must follow RNFR at once; anything else forgets the source.
    if (verb != "RNFR" && verb != "RNTO")
        rnfr_.clear();
    // A restart offset is for the next RETR, STOR or APPE only (which take
    // it): any other command in between drops it, so that it cannot land
    // on a later, unrelated store and leave a hole or an old tail.
    if (verb != "REST")
        rest_ = 0;
}

const std::map<std::string, Session::Command> &Session::commands()
{
    static const std::map<std::string, Command> table = {
        {"USER", {&Session::cmd_user, false, true}},
        {"PASS", {&Session::cmd_pass, false, false}},
        {"AUTH", {&Session::cmd_auth, false, true}},
        {"PBSZ", {&Session::cmd_pbsz, false, true}},
        {"PROT", {&Session::cmd_prot, false, true}},
        {"SYST", {&Session::cmd_syst, false, false}},
        {"FEAT", {&Session::cmd_feat, false, false}},
        {"OPTS", {&Session::cmd_opts, false, true}},
        {"HELP", {&Session::cmd_help, false, false}},
        {"NOOP", {&Session::cmd_noop, false, false}},
        {"QUIT", {&Session::cmd_quit, false, false}},
        {"STAT", {&Session::cmd_stat, false, false}},
        {"SITE", {&Session::cmd_site, true, true}},
        {"PWD", {&Session::cmd_pwd, true, false}},
        {"XPWD", {&Session::cmd_pwd, true, false}},
        {"CWD", {&Session::cmd_cwd, true, false}},
        {"XCWD", {&Session::cmd_cwd, true, false}},
        {"CDUP", {&Session::cmd_cdup, true, false}},
        {"XCUP", {&Session::cmd_cdup, true, false}},
        {"MKD", {&Session::cmd_mkd, true, true}},
        {"XMKD", {&Session::cmd_mkd, true, true}},
        {"RMD", {&Session::cmd_rmd, true, true}},
        {"XRMD", {&Session::cmd_rmd, true, true}},
        {"DELE", {&Session::cmd_dele, true, true}},
        {"RNFR", {&Session::cmd_rnfr, true, true}},
        {"RNTO", {&Session::cmd_rnto, true, true}},
        {"SIZE", {&Session::cmd_size, true, true}},
        {"MDTM", {&Session::cmd_mdtm, true, true}},
        {"MLST", {&Session::cmd_mlst, true, false}},
        {"CKSM", {&Session::cmd_cksm, true, true}},
        {"TYPE", {&Session::cmd_type, true, true}},
        {"MODE", {&Session::cmd_mode, true, true}},
        {"STRU", {&Session::cmd_stru, true, true}},
        {"PASV", {&Session::cmd_pasv, true, false}},
        {"EPSV", {&Session::cmd_epsv, true, false}},
        {"PORT", {&Session::cmd_port, true, true}},
        {"EPRT", {&Session::cmd_eprt, true, true}},
        {"REST", {&Session::cmd_rest, true, true}},
        {"ALLO", {&Session::cmd_allo, true, true}},
        {"ABOR", {&Session::cmd_abor, true, false}},
        {"RETR", {&Session::cmd_retr, true, true}},
        {"STOR", {&Session::cmd_stor, true, true}},
        {"APPE", {&Session::cmd_appe, true, true}},
        {"STOU", {&Session::cmd_stou, true, false}},
        {"LIST", {&Session::cmd_list, true, false}},
        {"NLST", {&Session::cmd_nlst, true, false}},
        {"MLSD", {&Session::cmd_mlsd, true, false}},
    };
    return table;
}

std::string Session::reply_error(tarvex_result_t result, int default_code)
{
    std::string out;
    char *text = tarvex_gfs_error_to_ftp_reply(result, default_code);
    if (text != nullptr) {
        // The rendering drops C0 controls; a path the client named may
        // still hold C1 controls or bytes that are not UTF-8.
        std::string_view rest = text;
        for (size_t end; (end = rest.find("\r\n")) != std::string_view::npos;
             rest.remove_prefix(end + 2))
            out += printable(rest.substr(0, end)) + "\r\n";
        ctl_.send_raw(out);
        free(text);
    } else {
        out = std::to_string(default_code) + " Operation failed.\r\n";
        ctl_.send_raw(out);
    }
    tarvex_error_discard(result);
    return out;
}

std::string Session::path_arg(const std::string &arg) const
{
    return resolve_path(cwd_, home_, arg);
}

// ------------------------------------------------------ calling the plug-in

void Session::call_plugin(PluginCall &c, const std::function<void(tarvex_gfs_operation_t)> &fn)
{
    c.session = this;
    c.op = tarvex_gfs_operation_create(&session_provider, &c);
    if (c.op == nullptr) {
        c.finished = c.returned = true;
        c.result = TARVEX_GFS_MALLOC_ERROR(nullptr, ENOMEM);
        return;
    }
    const char *function = __func__; // in the lambda it would name operator()
    plugin_thread_->post([this, &c, fn, function] {
        // The plug-in's code (and the REST client inside it) finds the
        // operation it works for, to see whether it was cancelled.
        tarvex_gfs_operation_t previous = tarvex_gfs_operation_set_current(c.op);
        try {
            fn(c.op);
        } catch (...) {
            // A plug-in's function must not throw; if it did, the call is
            // answered here so that the session does not wait for it.
            log_session("the storage plug-in threw an exception");
            call_finished(c, tarvex_error_put(tarvex_error_construct_error(
                                 nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, __FILE__, function,
                                 __LINE__, "The storage failed unexpectedly.")));
        }
        tarvex_gfs_operation_set_current(previous);
        {
            std::lock_guard lock(mu_);
            c.returned = true;
        }
        wake();
    });
    wait_for(c);
    if (c.aborted && c.transfer == nullptr) {
        // A transfer answers an ABOR itself (finish_transfer); for any other
        // call the command replies 426 unless it finished anyway, and the
        // ABOR gets its 226 after that.
        abort_owed_ = true;
        if (c.result != TARVEX_SUCCESS) {
            tarvex_error_discard(c.result);
            c.result = aborted_error();
        }
    }
    tarvex_gfs_operation_destroy(c.op);
    c.op = nullptr;
}

// Asks the plug-in to stop the call (ABOR, a lost client, SIGTERM); its
// grace period starts now.
void Session::cancel(PluginCall &c)
{
    if (c.cancelled_at == 0)
        c.cancelled_at = now_ms();
    tarvex_gfs_operation_cancel(c.op);
    if (c.transfer != nullptr)
        c.transfer->abort();
}

// The plug-in did not return within its grace period after being
// cancelled: the thread it runs on cannot be taken back, so the session
// process ends here, and with it everything the plug-in held.
[[noreturn]] void Session::give_up()
{
    log_session("the storage plug-in did not stop within " + std::to_string(opts_.cancel_grace) +
                " s of being cancelled; ending the session");
    if (logged_in_)
        log_session(log_field(user_) + " logged out (the storage did not stop in time)");
    if (!control_lost_ && !login_expired_)
        reply(421, "The storage did not stop in time, closing control connection.");
    fflush(stderr);
    _exit(1);
}

// While the storage session of a login starts (the only plug-in call made
// before the login is complete): how long to wait at most, the login
// deadline included.  At the deadline the client is answered 421 and the
// start is cancelled; the plug-in then has its grace period to return (a
// session it made after all is ended), else the session process ends
// (give_up()).  A Box answer trickling in a byte at a time kept a login
// waiting for minutes before.
int Session::login_wait(PluginCall &c, int wait_ms)
{
    if (logged_in_ || login_expired_)
        return wait_ms;
    long long left = login_deadline_ - now_ms();
    if (left > 0)
        return wait_ms < 0 ? static_cast<int>(left) : std::min(wait_ms, static_cast<int>(left));
    login_expired_ = true;
    quit_ = true;
    log_session("no login within " + std::to_string(opts_.login_timeout) +
                " s: the storage session did not start in time");
    reply(421, "Login time exceeded, closing control connection.");
    cancel(c);
    return static_cast<int>(opts_.cancel_grace * 1000LL);
}

void Session::reply_busy_line(const std::string &line, PluginCall &c)
{
    auto [verb, arg] = split_command(line);
    bool has_arg = arg.find_first_not_of(' ') != std::string::npos;
    if (verb == "ABOR" && c.cancellable) {
        c.aborted = true;
        cancel(c); // answered when the plug-in has stopped
        return;
    }
    // While data flow, NOOP and STAT are answered at once; at any other
    // time an answer would overtake the reply of the command still running,
    // so they wait their turn like the rest.
    bool flowing = c.transfer != nullptr && c.transfer->announced();
    if (flowing && verb == "NOOP") {
        reply(200, "NOOP ok.");
        return;
    }
    if (flowing && verb == "STAT" && !has_arg) {
        reply(211, "Status of tarvex-gridftp-server:\nTransfer in progress: " + c.transfer->what() +
                       ", " + std::to_string(c.transfer->bytes()) + " bytes so far\nEnd of status.");
        return;
    }
    if (pending_.size() >= max_pending_lines) {
        reply(503, "Busy: a transfer is in progress.");
        return;
    }
    pending_.push_back(line); // the plug-in takes one call at a time
}

void Session::wait_for(PluginCall &c)
{
    for (;;) {
        {
            std::lock_guard lock(mu_);
            if (c.finished && c.returned && (c.transfer == nullptr || c.transfer->done()))
                break;
        }
        int wait_ms = -1;
        if (c.cancelled_at != 0) {
            long long left = c.cancelled_at + opts_.cancel_grace * 1000LL - now_ms();
            if (left <= 0)
                give_up();
            wait_ms = static_cast<int>(left);
        }
        wait_ms = login_wait(c, wait_ms);
        std::string line;
        ControlChannel::Event ev;
        if (control_lost_) {
            pollfd p{wake_fd_, POLLIN, 0};
            ev = poll(&p, 1, wait_ms) > 0 ? ControlChannel::Event::woken
                                          : ControlChannel::Event::timeout;
        } else {
            ev = ctl_.next(line, wait_ms, wake_fd_);
        }
        switch (ev) {
        case ControlChannel::Event::woken:
            drain_wake();
            break;
        case ControlChannel::Event::timeout:
            break; // the grace period is looked at above
        case ControlChannel::Event::line:
            reply_busy_line(line, c);
            break;
        case ControlChannel::Event::too_long:
        case ControlChannel::Event::nul:
            reply_unreadable(ev);
            break;
        default:
            // The client is gone (or SIGTERM shut the connection): stop the
            // call, let the plug-in finish.  A login too: nobody is left to
            // use it.
            control_lost_ = true;
            if (c.cancellable || !logged_in_)
                cancel(c);
            break;
        }
    }
}

// Whether `path` names an entry (why not is dropped); none when an ABOR
// came meanwhile, which is then answered with 426 and `aborted`.
std::optional<bool> Session::exists_unless_aborted(const std::string &path, const char *aborted)
{
    StatEntry e;
    tarvex_result_t r = TARVEX_SUCCESS;
    bool exists = stat_one(path, e, r);
    tarvex_error_discard(r);
    if (abort_owed_) {
        retire_data();
        reply(426, aborted);
        return std::nullopt;
    }
    return exists;
}

bool Session::stat_one(const std::string &path, StatEntry &out, tarvex_result_t &result)
{
    tarvex_gfs_stat_info_t info{};
    info.file_only = true;
    info.pathname = const_cast<char *>(path.c_str());
    PluginCall c;
    bool got = false;
    c.on_stat = [&](tarvex_result_t r, tarvex_gridftp_server_control_stat_t *a, int n, bool) {
        if (r == TARVEX_SUCCESS && a != nullptr && n > 0 && !got) {
            out = copy_entry(a[0]);
            got = true;
        }
    };
    call_plugin(c, [&](tarvex_gfs_operation_t op) { iface_->stat_func(op, &info, session_arg_); });
    result = c.result;
    if (result == TARVEX_SUCCESS && !got)
        result = tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 550, "PATH_NOT_FOUND", "No such file or directory."));
    return result == TARVEX_SUCCESS;
}

bool Session::run_command(tarvex_gfs_command_info_t &info, std::string &response,
                          tarvex_result_t &result)
{
    PluginCall c;
    call_plugin(c, [&](tarvex_gfs_operation_t op) { iface_->command_func(op, &info, session_arg_); });
    result = c.result;
    response = c.response;
    return result == TARVEX_SUCCESS;
}

void Session::destroy_plugin_session()
{
    if (!logged_in_ || iface_ == nullptr)
        return;
    logged_in_ = false;
    if (iface_->destroy_func != nullptr) {
        PluginCall c;
        c.session = this;
        void *arg = session_arg_;
        plugin_thread_->post([this, &c, arg] {
            try {
                iface_->destroy_func(arg);
            } catch (...) {
                log_session("the storage plug-in threw an exception");
            }
            {
                std::lock_guard lock(mu_);
                c.returned = true;
            }
            wake();
        });
        for (;;) {
            {
                std::lock_guard lock(mu_);
                if (c.returned)
                    break;
            }
            pollfd p{wake_fd_, POLLIN, 0};
            poll(&p, 1, 1000);
            drain_wake();
        }
    }
    plugin_thread_.reset();
    tarvex_gfs_dsi_unload(opts_.dsi.c_str());
    iface_ = nullptr;
}

} // namespace tarvex_server
