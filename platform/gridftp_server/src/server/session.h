// One client session: the control connection, the login, the current
// folder, the plug-in's session, and the commands.  It runs in a process of
// its own (see listener.h).
#pragma once

#include <openssl/ssl.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "auth.h"
#include "config_data.h"
#include "control.h"
#include "data_channel.h"
#include "listing.h"
#include "options.h"
#include "plugin_thread.h"
#include "tarvex_gridftp_server.h"
#include "transfer.h"
#include "xferlog.h"

namespace tarvex_server {

// What every session shares, set up by the listening process at its start
// and again at SIGHUP (setup.h): a session takes what is in force when its
// client connects.
struct ServerContext {
    const Options *opts = nullptr;
    SSL_CTX *tls = nullptr;         // NULL: no AUTH TLS
    std::string plugin_path;        // search path for plug-ins
    TransferLog *transfer_log = nullptr; // NULL: no --transfer-log
    TransferLog *audit_log = nullptr;    // NULL: no --audit-log (audit.h)
    const PasswordFile *passwords = nullptr; // with --passwd
    // Configuration data read ahead, by key (ConfigData's `texts`).
    const std::map<std::string, std::string> *checked_data = nullptr;
    // SIGHUP in the listening process: reads the setup again.
    std::function<void()> reload;
};

class Session;
struct ListWalk; // commands_list.cpp

// The context of one plug-in call: the provider's `ctx`.
struct PluginCall {
    Session *session = nullptr;
    tarvex_gfs_operation_t op = nullptr;

    // completion (guarded by the session's mutex)
    bool finished = false;
    bool returned = false;
    tarvex_result_t result = TARVEX_SUCCESS;

    // cancelling (the session thread only)
    bool cancellable = true;   // false for session start and end
    bool aborted = false;      // by the client's ABOR
    long long cancelled_at = 0; // now_ms() of the first cancel, 0: none

    // session start
    void *session_arg = nullptr;
    std::string home_dir;
    // stat: every batch, partial or final, goes here (on the plug-in's thread)
    std::function<void(tarvex_result_t, tarvex_gridftp_server_control_stat_t *, int, bool)> on_stat;
    bool stat_failed = false; // a batch could not be handled: the stat fails
    // command
    std::string response;
    // transfer (and listings, for their data connection)
    Transfer *transfer = nullptr;
};

class Session {
public:
    // `implicit_tls`: the client came to --implicit-tls-port, and speaks TLS
    // from its first byte.
    Session(int fd, const ServerContext &ctx, const Endpoints &ep, bool implicit_tls = false);
    ~Session();
    void run();

    // ---- used by the provider (any thread) ----
    void call_finished(PluginCall &c, tarvex_result_t result);
    void wake();
    // One reply line; control characters in `text` become '?'.
    bool reply_line(int code, const std::string &text);
    tarvex_result_t config_data(const char *key, char **data);
    void set_checksum_support(const char *s);
    int update_interval() const { return update_interval_; }

private:
    using Handler = void (Session::*)(const std::string &arg);
    struct Command {
        Handler fn;
        bool needs_login;
        bool needs_arg;
    };
    static const std::map<std::string, Command> &commands();

    // the loop
    const char *command_loop();
    void dispatch(const std::string &line);
    void reply(int code, const std::string &text) { ctl_.reply(code, text); }
    // Replies with the error of `result`; the reply as sent.
    std::string reply_error(tarvex_result_t result, int default_code);
    void reply_busy_line(const std::string &line, PluginCall &c);
    void reply_unreadable(ControlChannel::Event ev);

    // calling the plug-in
    void call_plugin(PluginCall &c, const std::function<void(tarvex_gfs_operation_t)> &fn);
    void wait_for(PluginCall &c);
    int login_wait(PluginCall &c, int wait_ms);
    void cancel(PluginCall &c);
    [[noreturn]] void give_up();
    void drain_wake();
    bool stat_one(const std::string &path, StatEntry &out, tarvex_result_t &result);
    std::optional<bool> exists_unless_aborted(const std::string &path, const char *aborted);
    bool stat_or_reply(const std::string &path, StatEntry &e);
    bool real_path(std::string &path, tarvex_result_t &result);
    bool run_command(tarvex_gfs_command_info_t &info, std::string &response,
                     tarvex_result_t &result);
    void destroy_plugin_session();
    std::string path_arg(const std::string &arg) const;

    // login and security
    void cmd_user(const std::string &arg);
    void cmd_pass(const std::string &arg);
    bool start_plugin_session(const std::string &login);
    void cmd_auth(const std::string &arg);
    bool start_implicit_tls();
    void cmd_pbsz(const std::string &arg);
    void cmd_prot(const std::string &arg);
    // information
    void cmd_syst(const std::string &arg);
    void cmd_feat(const std::string &arg);
    void cmd_opts(const std::string &arg);
    void cmd_help(const std::string &arg);
    void cmd_noop(const std::string &arg);
    void cmd_quit(const std::string &arg);
    void cmd_stat(const std::string &arg);
    void cmd_site(const std::string &arg);
    // name space
    void cmd_pwd(const std::string &arg);
    void cmd_cwd(const std::string &arg);
    void cmd_cdup(const std::string &arg);
    void cmd_mkd(const std::string &arg);
    void cmd_rmd(const std::string &arg);
    void cmd_dele(const std::string &arg);
    void cmd_rnfr(const std::string &arg);
    void cmd_rnto(const std::string &arg);
    void cmd_size(const std::string &arg);
    void cmd_mdtm(const std::string &arg);
    void cmd_mlst(const std::string &arg);
    void cmd_cksm(const std::string &arg);
    // Runs one plug-in command on `path` (RNTO: `from` is the source) and
    // replies `ok_code ok_text`, or 550 with the plug-in's error.
    void simple_command(tarvex_gfs_command_type_t type, const std::string &path, int ok_code,
                        const std::string &ok_text, const char *from = nullptr);
    // A line in the audit log (audit.h) for a change asked of the storage.
    void audit(const char *command, const std::string &path, const std::string &second,
               const std::string &reply);
    // data
    void cmd_type(const std::string &arg);
    void cmd_mode(const std::string &arg);
    void cmd_stru(const std::string &arg);
    void cmd_pasv(const std::string &arg);
    void cmd_epsv(const std::string &arg);
    void enter_passive(bool extended);
    void cmd_port(const std::string &arg);
    void cmd_eprt(const std::string &arg);
    void active_data(const std::string &arg, bool extended);
    void cmd_rest(const std::string &arg);
    void cmd_allo(const std::string &arg);
    void cmd_abor(const std::string &arg);
    void cmd_retr(const std::string &arg);
    void cmd_stor(const std::string &arg);
    void cmd_appe(const std::string &arg);
    void cmd_stou(const std::string &arg);
    void cmd_list(const std::string &arg);
    void cmd_nlst(const std::string &arg);
    void cmd_mlsd(const std::string &arg);
    void listing(const std::string &arg, int kind);
    void list_matches(const std::string &written, const std::string &path, int kind);
    tarvex_result_t list_folder(ListWalk &walk, const std::string &path);
    bool list_file(ListWalk &walk, const std::string &path, const std::string &written);
    tarvex_result_t list_below(ListWalk &walk, const std::string &path, const std::string &shown,
                               Transfer &t);
    // One plug-in listing of `path`: every entry (the folder's own "."
    // too) goes to `each`, which returns false to stop the listing there;
    // `batch_done` after each batch.  Stopping is no failure.
    tarvex_result_t list_entries(const std::string &path, Transfer &t,
                                 const std::function<bool(const StatEntry &)> &each,
                                 const std::function<void()> &batch_done);
    bool data_allowed();
    void retire_data();
    bool refused_after_epsv_all();
    TransferParams transfer_params(const std::string &what);
    // The replies at the end of a transfer or listing whose storage
    // answered `result` (taken over); true for 226.
    bool finish_transfer(tarvex_result_t result, Transfer &t, int default_code);
    // `announce`: the 150 reply's text, when not the usual one.
    void transfer(bool store, const std::string &arg, bool append = false,
                  const std::string &announce = {});
    void log_transfer(bool store, const std::string &path, long long bytes, long long ms, bool ok,
                      bool end_unconfirmed = false);

    const ServerContext &ctx_;
    const Options &opts_;
    ControlChannel ctl_;
    Endpoints ep_;
    ConfigData config_;
    int wake_fd_ = -1;
    std::mutex mu_;

    // connection state
    bool quit_ = false;
    bool control_lost_ = false;
    bool abort_owed_ = false; // an ABOR stopped a command: 226 after its reply
    std::deque<std::string> pending_; // lines that came while the plug-in worked

    // login
    std::string user_;
    bool logged_in_ = false;
    // A fixed time to log in, from connecting: a stranger who never does
    // holds a session place only this long, and a login whose storage
    // session does not start in time is answered 421 at this time.
    long long login_deadline_ = 0;
    bool login_expired_ = false;
    int failed_logins_ = 0;
    bool implicit_tls_ = false;
    bool tls_ = false;
    bool pbsz_ = false;
    bool prot_p_ = false;
    // The marks of the control connection's TLS sessions (tls.h): random
    // per session, and the user's once logged in with a password file.
    std::string tls_session_mark_;
    std::string tls_user_mark_;

    // the plug-in
    const tarvex_gfs_storage_iface_t *iface_ = nullptr; // &table_ once loaded
    tarvex_gfs_storage_iface_t table_{};                // the plug-in's, gaps filled
    std::unique_ptr<PluginThread> plugin_thread_;
    void *session_arg_ = nullptr;
    std::string cksm_support_;
    int update_interval_ = 0;

    // file system state
    std::string cwd_ = "/";
    std::string home_ = "/";
    std::string rnfr_; // empty: no RNFR waiting for its RNTO
    tarvex_off_t rest_ = 0;
    tarvex_off_t alloc_ = 0;
    bool type_ascii_ = false; // TYPE A: files' line ends are converted
    DataSetup data_;
    // The setup of a transfer refused before its data connection was
    // opened, kept until the client's next command: see retire_data().
    DataSetup retired_data_;
    bool epsv_all_ = false;
    FactSet facts_;
};

} // namespace tarvex_server
