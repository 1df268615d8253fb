// SYST, FEAT, OPTS, HELP, NOOP, QUIT, STAT and SITE.
#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <strings.h>

#include "path.h"
#include "session.h"

namespace tarvex_server {

namespace {

std::string upper(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

// "CKSM MD5 0 -1 /path": the algorithm names of the plug-in's announcement
// "SHA1:1;MD5:8;" without their priorities.
std::string checksum_names(const std::string &support)
{
    std::string out;
    size_t i = 0;
    while (i < support.size()) {
        size_t j = support.find(';', i);
        if (j == std::string::npos)
            j = support.size();
        std::string item = support.substr(i, j - i);
        std::string name = item.substr(0, item.find(':'));
        if (!name.empty())
            out += (out.empty() ? "" : ",") + name;
        i = j + 1;
    }
    return out;
}

} // namespace

void Session::cmd_syst(const std::string &)
{
    reply(215, "UNIX Type: L8");
}

void Session::cmd_feat(const std::string &)
{
    std::string text = "Features:\n";
    if (ctx_.tls != nullptr)
        text += "AUTH TLS\nPBSZ\nPROT\n";
    text += "EPRT\nEPSV\nMDTM\nSIZE\nREST STREAM\nTVFS\nUTF8\n";
    text += "MLST " + facts_.feat_list() + "\n";
    std::string cksm;
    {
        std::lock_guard lock(mu_);
        cksm = checksum_names(cksm_support_);
    }
    text += cksm.empty() ? "CKSM\n" : "CKSM " + cksm + "\n";
    text += "SITE RDEL\n";
    reply(211, text + "End");
}

void Session::cmd_opts(const std::string &arg)
{
    size_t sp = arg.find(' ');
    std::string what = upper(arg.substr(0, sp));
    std::string rest = sp == std::string::npos ? "" : arg.substr(sp + 1);
    if (what == "UTF8" || what == "UTF-8") {
        // Paths go to the plug-in as the client sends them: UTF-8 in, UTF-8 out.
        if (strcasecmp(rest.c_str(), "ON") == 0 || rest.empty())
            reply(200, "UTF8 mode on.");
        else
            reply(501, "UTF8 cannot be turned off.");
        return;
    }
    if (what == "MLST") {
        facts_.select(rest);
        reply(200, "MLST OPTS " + facts_.enabled_list());
        return;
    }
    if (what == "CKSM") {
        // OPTS CKSM INTERVAL=N: progress replies every N seconds during long
        // checksums (0 turns them off).
        std::string r = upper(rest);
        if (r.rfind("INTERVAL=", 0) == 0) {
            char *end = nullptr;
            long v = strtol(rest.c_str() + 9, &end, 10);
            if (end != rest.c_str() + 9 && *end == '\0' && v >= 0 && v <= 3600) {
                update_interval_ = static_cast<int>(v);
                reply(200, "CKSM progress interval " + std::to_string(v) + ".");
                return;
            }
        }
        reply(501, "Syntax: OPTS CKSM INTERVAL=<seconds>");
        return;
    }
    reply(501, "Option not understood.");
}

void Session::cmd_help(const std::string &)
{
    reply(214,
          "The following commands are recognized:\n"
          "ABOR ALLO APPE AUTH CDUP CKSM CWD  DELE EPRT EPSV FEAT HELP LIST MDTM MKD\n"
          "MLSD MLST MODE NLST NOOP OPTS PASS PASV PBSZ PORT PROT PWD  QUIT REST\n"
          "RETR RMD  RNFR RNTO SITE SIZE STAT STOR STOU STRU SYST TYPE USER\n"
          "SITE RDEL <path> removes a folder tree; OPTS CKSM INTERVAL=<s> asks for\n"
          "CKSM progress replies.\n"
          "Help OK.");
}

void Session::cmd_noop(const std::string &)
{
    reply(200, "NOOP ok.");
}

void Session::cmd_quit(const std::string &)
{
    reply(221, "Goodbye.");
    quit_ = true;
}

void Session::cmd_stat(const std::string &arg)
{
    if (arg.empty()) {
        std::string text = "Status of tarvex-gridftp-server:\n";
        text += "Connected from " + host_of(ep_.peer) + "\n";
        text += logged_in_ ? "Logged in as " + user_ + "\n" : "Not logged in\n";
        text += std::string("Control connection ") + (tls_ ? "protected by TLS" : "in the clear") + "\n";
        text += std::string("Data connections ") + (prot_p_ ? "protected" : "in the clear") + "\n";
        text += std::string("TYPE: ") + (type_ascii_ ? "ASCII" : "BINARY") +
                ", STRUcture: File, MODE: Stream\nNo data connection\n";
        reply(211, text + "End of status.");
        return;
    }
    if (!logged_in_) {
        reply(530, "Please log in with USER and PASS.");
        return;
    }
    // STAT path: the listing over the control connection.
    std::string path = path_arg(arg);
    tarvex_gfs_stat_info_t info{};
    info.file_only = false;
    info.pathname = const_cast<char *>(path.c_str());
    std::string lines;
    time_t now = time(nullptr);
    PluginCall c;
    c.on_stat = [&](tarvex_result_t r, tarvex_gridftp_server_control_stat_t *a, int n, bool) {
        if (r != TARVEX_SUCCESS || a == nullptr)
            return;
        for (int i = 0; i < n; ++i) {
            StatEntry e = copy_entry(a[i]);
            if (e.name == "." || e.name == ".." || !listable(e, path))
                continue;
            lines += list_line(e, e.name, now) + "\n";
        }
    };
    call_plugin(c, [&](tarvex_gfs_operation_t op) { iface_->stat_func(op, &info, session_arg_); });
    if (c.result != TARVEX_SUCCESS && abort_owed_) {
        reply_error(c.result, 426); // aborted: no second look
        return;
    }
    if (c.result != TARVEX_SUCCESS) {
        // Not a folder: the one item.
        tarvex_result_t first = c.result;
        StatEntry e;
        tarvex_result_t r2;
        if (!stat_one(path, e, r2)) {
            tarvex_error_discard(r2);
            reply_error(first, 550);
            return;
        }
        tarvex_error_discard(first);
        lines = list_line(e, base_name(path), now) + "\n";
    }
    reply(213, "Status of " + path + ":\n" + lines + "End of status.");
}

void Session::cmd_site(const std::string &arg)
{
    size_t sp = arg.find(' ');
    std::string what = upper(arg.substr(0, sp));
    std::string rest = sp == std::string::npos ? "" : arg.substr(sp + 1);
    if (what == "RDEL") {
        if (rest.empty()) {
            reply(501, "Syntax: SITE RDEL <path>");
            return;
        }
        if (!(iface_->descriptor & TARVEX_GFS_DSI_DESCRIPTOR_RECURSIVE_DELETE)) {
            reply(504, "This storage does not delete folder trees.");
            return;
        }
        std::string path = path_arg(rest);
        if (path == "/") {
            reply(550, "The root folder cannot be deleted.");
            return;
        }
        simple_command(TARVEX_GFS_CMD_SITE_RDEL, path, 250, path + " removed.");
        return;
    }
    if (what == "CHMOD") {
        // SITE CHMOD <octal mode> <path>
        size_t sp2 = rest.find(' ');
        std::string mode = rest.substr(0, sp2);
        char *end = nullptr;
        long m = strtol(mode.c_str(), &end, 8);
        if (mode.empty() || *end != '\0' || m < 0 || m > 07777 || sp2 == std::string::npos ||
            rest.find_first_not_of(' ', sp2) == std::string::npos) {
            reply(501, "Syntax: SITE CHMOD <octal mode> <path>");
            return;
        }
        std::string path = path_arg(rest.substr(rest.find_first_not_of(' ', sp2)));
        tarvex_gfs_command_info_t info{};
        info.command = TARVEX_GFS_CMD_SITE_CHMOD;
        info.pathname = path.data();
        info.chmod_mode = static_cast<int>(m);
        info.cksm_length = -1;
        std::string response;
        tarvex_result_t r;
        std::string answer = "200 SITE CHMOD command successful.";
        if (run_command(info, response, r))
            reply(200, answer.substr(4));
        else
            answer = reply_error(r, 550);
        audit("SITE_CHMOD", path, mode, answer);
        return;
    }
    if (what == "HELP") {
        reply(214, "SITE commands: RDEL <path>, CHMOD <mode> <path>, HELP.\nHelp OK.");
        return;
    }
    reply(502, "SITE " + what + " is not implemented.");
}

} // namespace tarvex_server
