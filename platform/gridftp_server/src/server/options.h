// Command-line options of tarvex-gridftp-server.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "config_file.h"

namespace tarvex_server {

struct Options {
    int port = -1;                 // required; 0 picks a free port
    std::string bind = "127.0.0.1";
    std::string dsi;               // plug-in name, required
    std::string dsi_path;          // "" : <program dir>/../lib/tarvex
    std::string passwd_file;
    bool anonymous_map = false;
    std::string tls_cert;
    std::string tls_key;
    bool require_tls = false;
    std::map<std::string, std::string> config_files;    // key -> path
    std::map<std::string, std::string> config_commands; // key -> shell command
    std::string port_file;
    int pasv_low = 0;              // 0: any port the system gives
    int pasv_high = 0;
    int max_sessions = 64;
    int max_per_address = 32;      // sessions from one client address
    int idle_timeout = 900;        // seconds
    int login_timeout = 60;        // seconds from connecting to a login
    int cancel_grace = 5;          // seconds a cancelled plug-in call may take
    int recursive_list_limit = 100000; // items a LIST -R shows at most
    bool tls_data_any_session = false; // PROT P without resuming the control's session
    bool tls_strict_eof = false;   // an upload's TLS data connection must end with close_notify
    bool foreground = false;
    std::string transfer_log;      // "": no transfer log

    // What an operator watches and audits, and implicit TLS.
    int implicit_tls_port = -1;    // -1: none; 0 picks a free port
    std::string implicit_tls_port_file;
    std::string audit_log;         // "": no audit log
    std::string metrics_listen;    // "": no metrics; "ADDR:PORT"
    std::string metrics_port_file;

    std::string config_path;       // --config FILE, "": none
    std::vector<Setting> file_settings; // what that file says, in its order
    bool check_config = false;     // --check-config
};

// Parses argv, and the file of --config when it is given: the file's
// settings first, the command line's over them (a repeatable option's
// key given on both: the command line's).  Returns 0 to go on, 1 after
// printing help or the version (exit 0), -1 on a usage error (message in
// `err`, "FILE:LINE: key: why" for the file's).
int parse_options(int argc, char **argv, Options &opts, std::string &err);
// "ADDR:PORT" (an IPv6 address in brackets: "[::1]:9464") into a numeric
// address and a port (0-65535); false when it is not that.
bool split_host_port(const std::string &text, std::string &host, int &port);

// The same with the file's settings given (read again at SIGHUP).
int parse_options_with(const std::vector<Setting> &file, int argc, char **argv, Options &opts,
                       std::string &err);

// One setting of the configuration file, by option name without dashes;
// a switch takes "true" or "false".  "" when taken, else why not.  Every
// long option of the command line is a key, except --config and
// --check-config.
std::string apply_setting(const Setting &s, Options &opts);
const char *usage_text();

} // namespace tarvex_server
