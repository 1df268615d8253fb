/*
 * tarvex-box-credential: keeps each user's Box OAuth 2.0 credential and
 * prints it in the form the Box storage plug-in takes, for the server's
 * --config-command creds=... and renew-creds=....  See usage below and the
 * README's section on the credential helper.
 */
#include <ctype.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <jansson.h>

#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "credential.h"
#include "credential_store.h"
#include "failure.h"
#include "settings.h"
#include "tarvex_box_raii.h"
#include "tarvex_dsi_rest.h"

namespace box_credential {
namespace {

const char usage[] =
    "usage: tarvex-box-credential [SETTINGS] USER\n"
    "       tarvex-box-credential [SETTINGS] --renew USER\n"
    "       tarvex-box-credential [SETTINGS] --enrol USER --client FILE\n"
    "                             (--refresh-token-file FILE | --box-user-id ID)\n"
    "                             [--account NAME]\n"
    "\n"
    "Prints USER's Box credential as the Box storage plug-in takes it (JSON:\n"
    "access_token, token_expiry, sub, max_upload), renewing the access token\n"
    "first when no more than 105 s of it remain.  --renew, what renew-creds\n"
    "runs, renews unless another process did within the last 60 s.  --enrol\n"
    "makes the first grant for USER and keeps the credential.\n"
    "\n"
    "Settings:\n"
    "  --config FILE          JSON with any of state_dir, token_url, api_base\n"
    "                         (default /etc/tarvex/box-credential.json, if it exists)\n"
    "  --state-dir DIR        where credentials are kept (default /var/lib/tarvex/box;\n"
    "                         USER's is DIR/USER/credential.json)\n"
    "  --token-url URL        OAuth 2.0 token endpoint\n"
    "                         (default https://api.box.com/oauth2/token)\n"
    "  --api-base URL         Box API (default https://api.box.com)\n"
    "                         Either, given with --enrol, is kept for USER's later\n"
    "                         calls (unless they give it again)\n"
    "Enrolment:\n"
    "  --client FILE          JSON with \"client_id\" and \"client_secret\" of the Box\n"
    "                         application (mode 0600)\n"
    "  --refresh-token-file FILE\n"
    "                         the refresh-token grant, with the token on the first\n"
    "                         line of FILE ('-': standard input; a file must be its\n"
    "                         owner's alone, mode 0600)\n"
    "  --box-user-id ID       the client-credentials grant, acting as Box user ID\n"
    "  --account NAME         the local account USER's sessions run as, which the\n"
    "                         credential is kept for (tarvex for the packaged\n"
    "                         service); required as root\n"
    "\n"
    "URLs are https, or plain http to a loopback address.  Environment:\n"
    "TARVEX_DSI_REST_CA_FILE names a CA file to verify the servers with.\n"
    "Errors: one line on standard error, exit status 1 (2: bad usage).\n";

struct arguments {
    settings_overrides settings;
    std::string user;
    bool renew = false;
    bool enrol = false;
    std::optional<std::string> client_file;
    std::optional<std::string> refresh_token_file;
    std::optional<std::string> box_user_id;
    std::optional<std::string> account;
};

struct usage_error : failure {
    using failure::failure;
};

/* "--name VALUE" or "--name=VALUE". */
bool take_value(const std::vector<std::string> &args, size_t &i, const char *name,
                std::optional<std::string> &into)
{
    const std::string &a = args[i];
    std::string prefix = std::string(name) + "=";
    if (a.rfind(prefix, 0) == 0) {
        into = a.substr(prefix.size());
        return true;
    }
    if (a != name)
        return false;
    if (i + 1 >= args.size())
        throw usage_error(std::string(name) + " needs a value");
    into = args[++i];
    return true;
}

arguments parse_arguments(const std::vector<std::string> &args)
{
    arguments out;
    std::vector<std::string> users;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string &a = args[i];
        if (take_value(args, i, "--config", out.settings.config_file) ||
            take_value(args, i, "--state-dir", out.settings.state_dir) ||
            take_value(args, i, "--token-url", out.settings.token_url) ||
            take_value(args, i, "--api-base", out.settings.api_base) ||
            take_value(args, i, "--client", out.client_file) ||
            take_value(args, i, "--refresh-token-file", out.refresh_token_file) ||
            take_value(args, i, "--box-user-id", out.box_user_id) ||
            take_value(args, i, "--account", out.account))
            continue;
        if (a == "--refresh-token" || a.rfind("--refresh-token=", 0) == 0)
            throw usage_error("--refresh-token is gone: a token on the command line is shown "
                              "to every user (ps); give --refresh-token-file FILE, or - for "
                              "standard input");
        if (a == "--renew")
            out.renew = true;
        else if (a == "--enrol" || a == "--enroll")
            out.enrol = true;
        else if (a.size() > 1 && a[0] == '-')
            throw usage_error("unknown option " + a);
        else
            users.push_back(a);
    }
    if (users.size() != 1)
        throw usage_error("name exactly one USER");
    out.user = users[0];
    if (out.renew && out.enrol)
        throw usage_error("--renew and --enrol exclude each other");
    bool enrolment_options = out.client_file || out.refresh_token_file || out.box_user_id ||
                             out.account;
    if (!out.enrol && enrolment_options)
        throw usage_error("--client, --refresh-token-file, --box-user-id and --account go "
                          "with --enrol");
    if (out.enrol && (!out.client_file || out.refresh_token_file.has_value() ==
                                              out.box_user_id.has_value()))
        throw usage_error(
            "--enrol needs --client and one of --refresh-token-file, --box-user-id");
    return out;
}

/* The Box application's id and secret.  The secret lets whoever reads it
 * ask Box for tokens, so the file must be its owner's alone. */
void read_client_file(const std::string &path, credential &c)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        throw failure(path + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode) || (st.st_mode & 077) != 0)
        throw failure("client file " + path +
                      " must be a regular file readable by its owner only (0600)");
    json_error_t error;
    tarvex_box_json_ptr doc(json_load_file(path.c_str(), 0, &error));
    // The parser's text quotes what it read near the fault, the secret
    // perhaps: only the place is told.
    if (!doc)
        throw failure("client file " + path + ": not JSON (line " + std::to_string(error.line) +
                      ", column " + std::to_string(error.column) + ")");
    const char *id = nullptr;
    const char *secret = nullptr;
    if (json_unpack_ex(doc.get(), &error, 0, "{s:s,s:s}", "client_id", &id, "client_secret",
                       &secret) != 0 ||
        id[0] == '\0' || secret[0] == '\0')
        throw failure("client file " + path +
                      ": needs \"client_id\" and \"client_secret\", both non-empty strings");
    c.client_id = id;
    c.client_secret = secret;
}

std::string first_line(std::istream &in, const std::string &where)
{
    std::string line;
    if (!std::getline(in, line))
        throw failure("no refresh token " + where);
    while (!line.empty() && isspace(static_cast<unsigned char>(line.back())))
        line.pop_back();
    return line;
}

/* The refresh token, from the first line of `path` ('-': standard input),
 * never from the command line, where every user's ps shows it.  A regular
 * file that others may read is refused, as the client file is. */
std::string read_refresh_token(const std::string &path)
{
    if (path == "-")
        return first_line(std::cin, "on standard input");
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        throw failure(path + ": " + strerror(errno));
    if (S_ISREG(st.st_mode) && (st.st_mode & 077) != 0)
        throw failure("refresh token file " + path +
                      " must be readable by its owner only (0600)");
    std::ifstream in(path);
    if (!in)
        throw failure(path + ": " + strerror(errno));
    return first_line(in, "in " + path);
}

/* Root enrols for the account USER's sessions run as: the folder is made
 * for that account, and the rest runs as it, so that every file in the
 * folder is the account's own. */
void become(const std::string &account, const credential_store &store)
{
    struct passwd pw;
    struct passwd *found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwnam_r(account.c_str(), &pw, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr)
        throw failure("no local account " + account);
    if (pw.pw_uid == geteuid()) {
        store.prepare_folder(pw.pw_uid, getegid()); // the account running this
        return;
    }
    if (geteuid() != 0)
        throw failure("--account " + account + " needs root");
    store.prepare_folder(pw.pw_uid, pw.pw_gid);
    if (initgroups(account.c_str(), pw.pw_gid) != 0 || setgid(pw.pw_gid) != 0 ||
        setuid(pw.pw_uid) != 0)
        throw failure("cannot become " + account + ": " + strerror(errno));
}

std::string enrol_user(const settings &s, const credential_store &store, const arguments &a)
{
    credential c;
    read_client_file(*a.client_file, c);
    if (a.refresh_token_file) {
        c.grant = refresh_grant;
        c.refresh_token = read_refresh_token(*a.refresh_token_file);
        if (c.refresh_token.empty())
            throw failure("the refresh token is empty");
    } else {
        c.grant = client_credentials_grant;
        c.box_user_id = *a.box_user_id;
        if (c.box_user_id.empty())
            throw failure("the Box user id is empty");
    }
    if (a.account)
        become(*a.account, store);
    else if (geteuid() == 0)
        // Kept for root, the credential is refused to a server running as
        // anyone else ("owned by uid 0"), at the first login.
        throw failure("as root, --enrol needs --account NAME, the account " + a.user +
                      "'s sessions run as: tarvex for the packaged service, the login's own "
                      "account with per-account.conf, root only for a server whose sessions "
                      "run as root");
    else
        store.prepare_folder(geteuid(), getegid());
    return enrol(s, store, c);
}

/* The REST client, started for the process's lifetime. */
struct rest_client {
    rest_client()
    {
        // This process's standard error is the server's log, and the
        // client's trace level prints request headers, the bearer token
        // among them: its debug settings are the plug-in's, not ours.
        unsetenv("TARVEX_DSI_REST_DEBUG");
        if (tarvex_module_activate(&tarvex_i_dsi_rest_module) != 0)
            throw failure("the REST client could not start");
    }
    ~rest_client() { tarvex_module_deactivate(&tarvex_i_dsi_rest_module); }
    rest_client(const rest_client &) = delete;
    rest_client &operator=(const rest_client &) = delete;
};

void print(const std::string &text)
{
    if (fputs(text.c_str(), stdout) == EOF || fflush(stdout) != 0)
        throw failure(std::string("cannot write the answer: ") + strerror(errno));
}

std::string one_line(std::string text)
{
    for (char &c : text)
        if (iscntrl(static_cast<unsigned char>(c)))
            c = ' ';
    return text;
}

int run(const std::vector<std::string> &args)
{
    arguments a;
    try {
        a = parse_arguments(args);
    } catch (const usage_error &e) {
        std::cerr << "tarvex-box-credential: " << one_line(e.what()) << "\n" << usage;
        return 2;
    }
    std::string who = a.user + ": ";
    try {
        settings s = load_settings(a.settings);
        credential_store store(s.state_dir, a.user);
        rest_client client;
        if (a.enrol)
            print(enrol_user(s, store, a));
        else
            print(obtain(s, store, a.renew ? call::renewal : call::credential));
        return 0;
    } catch (const std::bad_alloc &) {
        std::cerr << "tarvex-box-credential: " << who << "out of memory\n";
    } catch (const std::exception &e) {
        std::cerr << "tarvex-box-credential: " << who << one_line(e.what()) << "\n";
    }
    return 1;
}

} // namespace
} // namespace box_credential

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    for (const std::string &a : args) {
        if (a == "--help" || a == "-h") {
            fputs(box_credential::usage, stdout);
            return 0;
        }
        if (a == "--version") {
            printf("tarvex-box-credential %s\n", TARVEX_VERSION);
            return 0;
        }
    }
    return box_credential::run(args);
}
