#include "options.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

// The project's version, from the build (see server.cmake).
#ifndef TARVEX_VERSION
#error "TARVEX_VERSION is not defined"
#endif

namespace tarvex_server {

namespace {

const char usage[] =
    "usage: tarvex-gridftp-server --port N --dsi NAME (--passwd FILE | --anonymous-map)\n"
    "                             [options]\n"
    "\n"
    "An FTP server (RFC 959, 2428, 3659, 4217) with GridFTP checksum and\n"
    "recursive-delete commands, serving a storage plug-in.  Each client session\n"
    "runs in its own process.\n"
    "\n"
    "  --port N              port to listen on (0: any free port)\n"
    "  --bind ADDR           address to listen on (default 127.0.0.1;\n"
    "                        0.0.0.0 or :: to serve the network)\n"
    "  --dsi NAME            storage plug-in: libtarvex_gridftp_server_NAME.so\n"
    "  --dsi-path DIR[:DIR]  where plug-ins are searched first (default: the\n"
    "                        platform's library folder, ../lib/tarvex from the\n"
    "                        program's)\n"
    "  --passwd FILE         logins: lines \"login:crypt-hash[:account]\"; '#' starts\n"
    "                        a comment.  Hashes are crypt(3) strings (yescrypt,\n"
    "                        SHA-512, ...).  When the server runs as root a session\n"
    "                        becomes the local account (default: the login name)\n"
    "  --anonymous-map       accept any login and password and serve it as the\n"
    "                        server's own account (demos and tests only)\n"
    "  --tls-cert PEM        certificate (chain) for AUTH TLS\n"
    "  --tls-key PEM         its private key\n"
    "  --require-tls         refuse USER/PASS before AUTH TLS and data\n"
    "                        connections without PROT P\n"
    "  --tls-data-any-session  accept a protected data connection that does not\n"
    "                        resume the control connection's TLS session (for\n"
    "                        clients that cannot; any local process that reaches\n"
    "                        the passive port first may then take the data)\n"
    "  --implicit-tls-port N  also listen on port N (990 by convention; 0: any\n"
    "                        free port) for implicit TLS: TLS from the first byte,\n"
    "                        with the certificate of --tls-cert; data connections\n"
    "                        are protected unless the client asks PROT C\n"
    "  --implicit-tls-port-file FILE  write that port to FILE once listening\n"
    "  --tls-strict-eof      fail (426) an upload of unannounced size (no ALLO)\n"
    "                        whose protected data connection ends without TLS\n"
    "                        close_notify; by default it is stored, and marked\n"
    "                        \"end unconfirmed\" in the logs\n"
    "  --config-file KEY=PATH      configuration data KEY for the plug-in is the\n"
    "                              contents of PATH (repeatable)\n"
    "  --config-command KEY=CMD    configuration data KEY is the standard output\n"
    "                              of CMD, run with /bin/sh -c as the session's\n"
    "                              account with TARVEX_USER=<login> (repeatable)\n"
    "  --port-file FILE      write the listening port to FILE once listening\n"
    "  --transfer-log FILE   append a line per finished file transfer to FILE\n"
    "                        (xferlog format); SIGHUP opens FILE again\n"
    "  --audit-log FILE      append a line per change a client asks of the\n"
    "                        storage (MKD, RMD, DELE, RNTO, SITE RDEL, SITE\n"
    "                        CHMOD) to FILE; SIGHUP opens FILE again\n"
    "  --metrics-listen ADDR:PORT  serve Prometheus metrics on GET /metrics at\n"
    "                        ADDR:PORT (e.g. 127.0.0.1:9464; [::1]:9464; port 0:\n"
    "                        any free port)\n"
    "  --metrics-port-file FILE  write the metrics port to FILE once listening\n"
    "  --pasv-range LOW-HIGH ports for passive data connections\n"
    "  --max-sessions N      concurrent sessions (default 64); more are refused\n"
    "                        with 421, unless a session not yet logged in gives\n"
    "                        up its place\n"
    "  --max-sessions-per-address N  concurrent sessions from one client\n"
    "                        address (default 32); the same\n"
    "  --idle-timeout S      seconds a session may sit idle, and a data\n"
    "                        connection may stall (default 900)\n"
    "  --login-timeout S     seconds from connecting to a completed login\n"
    "                        (default 60); commands do not extend it, and a\n"
    "                        storage session that has not started by then is\n"
    "                        cancelled (421)\n"
    "  --cancel-grace S      seconds the storage plug-in gets to stop an\n"
    "                        operation after ABOR, a lost client or SIGTERM,\n"
    "                        before the session ends without it (default 5)\n"
    "  --recursive-list-limit N  items a LIST -R or NLST -R shows at most\n"
    "                        (default 100000); a larger tree's listing ends\n"
    "                        there with 451\n"
    "  --foreground          do not detach from the terminal\n"
    "  --config FILE         settings from FILE: \"key = value\" lines whose keys\n"
    "                        are the long options above without their dashes\n"
    "                        (a switch: \"require-tls = true\"; a repeatable\n"
    "                        option repeats its line; '#' starts a comment\n"
    "                        line).  The command line's options win\n"
    "  --check-config        check the settings, the password file, the TLS\n"
    "                        certificate and key and the plug-in's configuration\n"
    "                        data, print what was found, and exit: 0 when all\n"
    "                        are usable, 2 naming the file, line and key when not\n"
    "  --help                this text\n"
    "  --version             the program's version\n"
    "\n"
    "Environment: TARVEX_EXTENSION_PATH adds plug-in directories.\n"
    "Signals: SIGTERM and SIGINT stop the server.  SIGHUP reopens the transfer\n"
    "log and the audit log and reads the --config file, the password file, the\n"
    "TLS certificate and key and the plug-in's checked configuration data again\n"
    "for new sessions (kept as they were when any of them is bad).\n"
    "See tarvex-gridftp-server(8).\n";

bool parse_int(const char *s, long lo, long hi, int &out)
{
    if (s == nullptr || *s == '\0')
        return false;
    errno = 0;
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    out = static_cast<int>(v);
    return true;
}

bool parse_key_value(const char *s, std::map<std::string, std::string> &into)
{
    const char *eq = s != nullptr ? strchr(s, '=') : nullptr;
    if (eq == nullptr || eq == s || eq[1] == '\0')
        return false;
    into[std::string(s, eq)] = eq + 1;
    return true;
}

bool parse_range(const char *s, int &lo, int &hi)
{
    const char *dash = s != nullptr ? strchr(s, '-') : nullptr;
    if (dash == nullptr)
        return false;
    std::string a(s, dash);
    return parse_int(a.c_str(), 1024, 65535, lo) && parse_int(dash + 1, 1024, 65535, hi) &&
           lo <= hi;
}

// A switch without a value; false when `a` is not one.
bool take_switch(std::string_view a, Options &o)
{
    if (a == "--anonymous-map")
        o.anonymous_map = true;
    else if (a == "--require-tls")
        o.require_tls = true;
    else if (a == "--foreground")
        o.foreground = true;
    else if (a == "--tls-data-any-session")
        o.tls_data_any_session = true;
    else if (a == "--tls-strict-eof")
        o.tls_strict_eof = true;
    else if (a == "--check-config")
        o.check_config = true;
    else
        return false;
    return true;
}

enum class Taken { ok, bad_value, unknown };

// The options of implicit TLS, the audit log and the metrics.
Taken take_watched(std::string_view a, const char *v, Options &o)
{
    bool ok = true;
    if (a == "--implicit-tls-port")
        ok = parse_int(v, 0, 65535, o.implicit_tls_port);
    else if (a == "--implicit-tls-port-file")
        o.implicit_tls_port_file = v;
    else if (a == "--audit-log") {
        o.audit_log = v;
        ok = !o.audit_log.empty();
    } else if (a == "--metrics-listen") {
        o.metrics_listen = v;
        std::string host;
        int port = 0;
        ok = split_host_port(o.metrics_listen, host, port);
    } else if (a == "--metrics-port-file")
        o.metrics_port_file = v;
    else
        return Taken::unknown;
    return ok ? Taken::ok : Taken::bad_value;
}

// An option `a` with its value `v`.
Taken take_valued(std::string_view a, const char *v, Options &o)
{
    bool ok = true;
    if (a == "--port")
        ok = parse_int(v, 0, 65535, o.port);
    else if (a == "--bind")
        o.bind = v;
    else if (a == "--dsi")
        o.dsi = v;
    else if (a == "--dsi-path")
        o.dsi_path = v;
    else if (a == "--passwd")
        o.passwd_file = v;
    else if (a == "--tls-cert")
        o.tls_cert = v;
    else if (a == "--tls-key")
        o.tls_key = v;
    else if (a == "--config-file")
        ok = parse_key_value(v, o.config_files);
    else if (a == "--config-command")
        ok = parse_key_value(v, o.config_commands);
    else if (a == "--port-file")
        o.port_file = v;
    else if (a == "--config")
        o.config_path = v;
    else if (a == "--transfer-log") {
        o.transfer_log = v;
        ok = !o.transfer_log.empty();
    } else if (a == "--pasv-range")
        ok = parse_range(v, o.pasv_low, o.pasv_high);
    else if (a == "--max-sessions")
        ok = parse_int(v, 1, 100000, o.max_sessions);
    else if (a == "--max-sessions-per-address")
        ok = parse_int(v, 1, 100000, o.max_per_address);
    else if (a == "--idle-timeout")
        ok = parse_int(v, 1, 86400L * 7, o.idle_timeout);
    else if (a == "--login-timeout")
        ok = parse_int(v, 1, 3600, o.login_timeout);
    else if (a == "--cancel-grace")
        ok = parse_int(v, 1, 600, o.cancel_grace);
    else if (a == "--recursive-list-limit")
        ok = parse_int(v, 1, 100000000, o.recursive_list_limit);
    else
        return take_watched(a, v, o);
    return ok ? Taken::ok : Taken::bad_value;
}

// What the options must say together; empty when they do.
std::string check_together(const Options &o)
{
    if (o.port < 0)
        return "--port is required";
    if (o.dsi.empty())
        return "--dsi is required";
    if (o.passwd_file.empty() == !o.anonymous_map)
        return "give exactly one of --passwd FILE and --anonymous-map";
    if (o.tls_cert.empty() != o.tls_key.empty())
        return "--tls-cert and --tls-key go together";
    if (o.require_tls && o.tls_cert.empty())
        return "--require-tls needs --tls-cert and --tls-key";
    if (o.implicit_tls_port >= 0 && o.tls_cert.empty())
        return "--implicit-tls-port needs --tls-cert and --tls-key";
    if (!o.implicit_tls_port_file.empty() && o.implicit_tls_port < 0)
        return "--implicit-tls-port-file needs --implicit-tls-port";
    if (!o.metrics_port_file.empty() && o.metrics_listen.empty())
        return "--metrics-port-file needs --metrics-listen";
    return "";
}

} // namespace

bool split_host_port(const std::string &text, std::string &host, int &port)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || !parse_int(text.c_str() + colon + 1, 0, 65535, port))
        return false;
    host = text.substr(0, colon);
    bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    unsigned char addr[16];
    if (bracketed)
        return inet_pton(AF_INET6, host.c_str(), addr) == 1;
    return inet_pton(AF_INET, host.c_str(), addr) == 1;
}

const char *usage_text()
{
    return usage;
}

std::string apply_setting(const Setting &s, Options &o)
{
    if (s.key == "config" || s.key == "check-config")
        return s.key + ": only on the command line";
    std::string name = "--" + s.key;
    Options scratch;
    if (take_switch(name, scratch)) {
        if (s.value == "true")
            take_switch(name, o);
        else if (s.value != "false")
            return s.key + ": a switch is true or false, not \"" + s.value + "\"";
        return "";
    }
    switch (take_valued(name, s.value.c_str(), o)) {
    case Taken::ok:
        return "";
    case Taken::bad_value:
        return s.key + ": bad value \"" + s.value + "\"";
    case Taken::unknown:
        break;
    }
    return s.key + ": unknown key (the keys are the long options of --help without "
                   "their dashes)";
}

namespace {

// The command line over whatever `o` holds already.
int take_arguments(int argc, char **argv, Options &o, std::string &err)
{
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(usage, stdout);
            return 1;
        }
        if (a == "--version") {
            fputs("tarvex-gridftp-server " TARVEX_VERSION "\n", stdout);
            return 1;
        }
        if (take_switch(a, o))
            continue;
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        Options scratch;
        if (take_valued(a, v != nullptr ? v : "", scratch) == Taken::unknown) {
            err = "unknown option " + std::string(a) + " (see --help)";
            return -1;
        }
        if (v == nullptr) {
            err = std::string(a) + ": missing value (see --help)";
            return -1;
        }
        ++i;
        if (take_valued(a, v, o) == Taken::bad_value) {
            err = "bad value for " + std::string(a) + ": " + v;
            return -1;
        }
    }
    return 0;
}

} // namespace

int parse_options_with(const std::vector<Setting> &file, int argc, char **argv, Options &o,
                       std::string &err)
{
    for (const Setting &s : file) {
        std::string why = apply_setting(s, o);
        if (!why.empty()) {
            err = o.config_path + ":" + std::to_string(s.line) + ": " + why;
            return -1;
        }
    }
    o.file_settings = file;
    int rc = take_arguments(argc, argv, o, err);
    if (rc != 0)
        return rc;
    std::string problem = check_together(o);
    if (!problem.empty())
        err = problem;
    return err.empty() ? 0 : -1;
}

int parse_options(int argc, char **argv, Options &o, std::string &err)
{
    // The command line once to find --config (and --help, and its own
    // mistakes), then the file, then the command line over it.
    Options first;
    int rc = take_arguments(argc, argv, first, err);
    if (rc != 0)
        return rc;
    std::vector<Setting> file;
    if (!first.config_path.empty() && !read_config_file(first.config_path, file, err))
        return -1;
    o.config_path = first.config_path;
    return parse_options_with(file, argc, argv, o, err);
}

} // namespace tarvex_server
