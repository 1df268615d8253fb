// USER, PASS, AUTH, PBSZ, PROT: logging in, and securing the connections.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <strings.h>

#include "auth.h"
#include "listener.h"
#include "log.h"
#include "mark_registry.h"
#include "metrics.h"
#include "session.h"
#include "tls.h"

namespace tarvex_server {

namespace {

constexpr int max_failed_logins = 3;

tarvex_result_t not_offered(const char *what)
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 502, "NOT_SUPPORTED", "This storage does not offer %s.", what));
}

// Stand-ins for the functions a plug-in leaves out: they refuse through the
// operation like a plug-in would, so callers never meet an empty slot.
void no_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *, void *)
{
    tarvex_gridftp_server_finished_stat(op, not_offered("listings"), nullptr, 0);
}

void no_command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *, void *)
{
    tarvex_gridftp_server_finished_command(op, not_offered("this command"), nullptr);
}

// The reply a failed result makes, on one line for the log: the first
// line with its code ("530 ...") unless `with_code` is false, the others
// without, joined by ": ".
// The log then says why a login failed as the client was told, with
// whatever the plug-in named (the policy's fault, the Box host that did
// not answer, the credential helper's refusal).
std::string reply_for_log(tarvex_result_t result, int default_code, bool with_code = true)
{
    char *text = tarvex_gfs_error_to_ftp_reply(result, default_code);
    if (text == nullptr)
        return "no reason given";
    std::string out;
    std::string_view rest = text;
    for (size_t end; (end = rest.find("\r\n")) != std::string_view::npos;
         rest.remove_prefix(end + 2)) {
        std::string_view line = rest.substr(0, end);
        if ((!out.empty() || !with_code) && line.size() >= 4)
            line.remove_prefix(4); // "NNN-" or "NNN "
        out += (out.empty() ? "" : ": ") + std::string(line);
    }
    free(text);
    if (with_code && out.size() > 4 && out[3] == '-')
        out[3] = ' ';
    return log_field(out);
}

} // namespace

void Session::cmd_user(const std::string &arg)
{
    if (logged_in_) {
        // The session process already runs as the first login's account.
        reply(503, "Already logged in; open a new connection for another login.");
        return;
    }
    if (opts_.require_tls && !tls_) {
        reply(530, "This server requires TLS: use AUTH TLS first.");
        return;
    }
    user_ = arg;
    if (opts_.anonymous_map)
        reply(331, "Any password will do for " + user_ + ".");
    else
        reply(331, "Password required for " + user_ + ".");
}

void Session::cmd_pass(const std::string &arg)
{
    if (logged_in_) {
        reply(503, "Already logged in.");
        return;
    }
    if (user_.empty()) {
        reply(503, "Login with USER first.");
        return;
    }
    if (opts_.require_tls && !tls_) {
        reply(530, "This server requires TLS: use AUTH TLS first.");
        return;
    }
    std::string login = user_;
    user_.clear();

    Account acct;
    bool ok = false;
    if (opts_.anonymous_map) {
        ok = lookup_own_account(acct);
    } else {
        std::string account;
        ok = ctx_.passwords != nullptr && ctx_.passwords->check(login, arg, account);
        if (ok && geteuid() == 0) {
            ok = lookup_account(account, acct);
            if (!ok)
                log_session("login " + log_field(login) + ": no local account " +
                            log_field(account));
        } else if (ok) {
            ok = lookup_own_account(acct); // not root: serve as ourselves
        }
    }
    if (!ok) {
        log_session("failed login for " + log_field(login));
        metrics::add(metrics::Family::logins, "failed");
        sleep(1); // slows down password guessing
        if (++failed_logins_ >= max_failed_logins) {
            reply(421, "Too many failed logins, closing control connection.");
            quit_ = true;
            return;
        }
        reply(530, "Login incorrect.");
        return;
    }

    if (geteuid() == 0 && acct.uid != 0) {
        std::string err;
        if (!switch_to_account(acct, err)) {
            log_session(log_field(err));
            reply(421, "Cannot set up the session, closing control connection.");
            quit_ = true;
            return;
        }
    }
    user_ = login;
    if (!start_plugin_session(login))
        quit_ = true; // the process may have changed account: no second try
}

bool Session::start_plugin_session(const std::string &login)
{
    tarvex_extension_set_search_path(ctx_.plugin_path.c_str());
    const tarvex_gfs_storage_iface_t *loaded = tarvex_gfs_dsi_load(opts_.dsi.c_str());
    if (loaded != nullptr) {
        table_ = *loaded;
        if (table_.stat_func == nullptr)
            table_.stat_func = no_stat;
        if (table_.command_func == nullptr)
            table_.command_func = no_command;
        iface_ = &table_;
    }
    if (iface_ == nullptr || iface_->init_func == nullptr) {
        const char *why = tarvex_extension_last_error();
        log_session("cannot load storage plug-in " + log_field(opts_.dsi) + ": " +
                    log_field(why != nullptr ? why : ""));
        reply(421, "Storage is not available, closing control connection.");
        return false;
    }
    plugin_thread_ = std::make_unique<PluginThread>();

    std::string host = host_of(ep_.peer);
    tarvex_gfs_session_info_t info{};
    info.username = const_cast<char *>(login.c_str());
    info.host_id = const_cast<char *>(host.c_str());
    PluginCall c;
    // An ABOR does not stop a login: a session the plug-in has made must be
    // taken (and later ended) whatever the client sends meanwhile.  The
    // login deadline and a lost client do (Session::wait_for()).
    c.cancellable = false;
    call_plugin(c, [&](tarvex_gfs_operation_t op) { iface_->init_func(op, &info); });
    if (login_expired_ || control_lost_) {
        // Answered 421 already (login_wait()), or nobody is left to answer;
        // a session the plug-in made after all is ended at once.
        if (c.result != TARVEX_SUCCESS && login_expired_)
            log_session("session start for " + log_field(login) + " timed out after " +
                        std::to_string(opts_.login_timeout) + " s (--login-timeout): " +
                        reply_for_log(c.result, 0, false));
        if (c.result == TARVEX_SUCCESS) {
            session_arg_ = c.session_arg;
            logged_in_ = true;
            destroy_plugin_session();
        }
        tarvex_error_discard(c.result);
        return false;
    }
    if (c.result != TARVEX_SUCCESS) {
        log_session("session start for " + log_field(login) + " failed: " +
                    reply_for_log(c.result, 530));
        metrics::add(metrics::Family::logins, "storage_failed");
        reply_error(c.result, 530);
        return false;
    }
    session_arg_ = c.session_arg;
    logged_in_ = true;
    report_login();
    // With --anonymous-map a name proves nothing: no other session's TLS
    // session lets this one's data connections in (mark_registry.h).
    if (!opts_.anonymous_map) {
        tls_user_mark_ = user_session_mark(login);
        if (!tls_user_mark_.empty())
            mark_registry::logged_in(tls_user_mark_);
    }
    home_ = c.home_dir.empty() || c.home_dir[0] != '/' ? "/" : c.home_dir;
    cwd_ = home_;
    log_session(log_field(login) + " logged in");
    metrics::add(metrics::Family::logins, "ok");
    reply(230, "User " + login + " logged in.");
    return true;
}

void Session::cmd_auth(const std::string &arg)
{
    if (ctx_.tls == nullptr) {
        reply(502, "AUTH is not available: the server has no certificate.");
        return;
    }
    if (tls_) {
        reply(503, "TLS is already on.");
        return;
    }
    if (strcasecmp(arg.c_str(), "TLS") != 0 && strcasecmp(arg.c_str(), "TLS-C") != 0 &&
        strcasecmp(arg.c_str(), "SSL") != 0) {
        reply(504, "AUTH " + arg + " is not supported; use AUTH TLS.");
        return;
    }
    reply(234, "AUTH TLS successful.");
    std::string err;
    if (!ctl_.start_tls(ctx_.tls, tls_session_mark_, err)) {
        log_session("TLS handshake failed: " + log_field(err));
        control_lost_ = true;
        return;
    }
    tls_ = true;
    // A login begun in the clear does not carry over; a completed one
    // stays (its name is the session's, for the credential helper and the
    // logs).
    if (!logged_in_)
        user_.clear();
}

// A client of --implicit-tls-port: the handshake comes first, within the
// login's time.  Data connections are then protected unless the client
// asks PROT C: implicit TLS clients take that for granted, and some never
// send PBSZ and PROT.
bool Session::start_implicit_tls()
{
    std::string err;
    long long left = std::clamp(login_deadline_ - now_ms(), 0LL, 30000LL);
    if (!ctl_.start_tls(ctx_.tls, tls_session_mark_, err, static_cast<int>(left))) {
        log_session("TLS handshake failed on the implicit TLS port: " + log_field(err));
        return false;
    }
    tls_ = true;
    pbsz_ = true;
    prot_p_ = true;
    return true;
}

void Session::cmd_pbsz(const std::string &arg)
{
    if (!tls_) {
        reply(503, "PBSZ needs AUTH TLS first.");
        return;
    }
    (void)arg; // stream mode over TLS needs no buffer: the size is always 0
    pbsz_ = true;
    reply(200, "PBSZ=0");
}

void Session::cmd_prot(const std::string &arg)
{
    if (!tls_ || !pbsz_) {
        reply(503, "PROT needs AUTH TLS and PBSZ first.");
        return;
    }
    if (strcasecmp(arg.c_str(), "P") == 0) {
        prot_p_ = true;
        reply(200, "Protection level set to Private.");
    } else if (strcasecmp(arg.c_str(), "C") == 0) {
        if (opts_.require_tls) {
            reply(534, "Data connections must be protected here.");
            return;
        }
        prot_p_ = false;
        reply(200, "Protection level set to Clear.");
    } else if (strcasecmp(arg.c_str(), "S") == 0 || strcasecmp(arg.c_str(), "E") == 0) {
        reply(536, "Protection level not supported.");
    } else {
        reply(504, "Unknown protection level.");
    }
}

} // namespace tarvex_server
