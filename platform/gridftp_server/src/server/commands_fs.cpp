// The name-space commands: PWD, CWD, CDUP, MKD, RMD, DELE, RNFR/RNTO, SIZE,
// MDTM, MLST and CKSM.
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <cstdlib>

#include "audit.h"
#include "log.h"
#include "parse.h"
#include "path.h"
#include "session.h"

namespace tarvex_server {

namespace {

// RFC 959: a '"' inside a quoted path name is doubled.
std::string quoted(const std::string &path)
{
    std::string out = "\"";
    for (char c : path) {
        out += c;
        if (c == '"')
            out += '"';
    }
    return out + "\"";
}

// The audit log's name of a command that changes the storage.
const char *audit_name(tarvex_gfs_command_type_t type)
{
    switch (type) {
    case TARVEX_GFS_CMD_MKD:
        return "MKD";
    case TARVEX_GFS_CMD_RMD:
        return "RMD";
    case TARVEX_GFS_CMD_DELE:
        return "DELE";
    case TARVEX_GFS_CMD_RNTO:
        return "RNTO";
    case TARVEX_GFS_CMD_SITE_RDEL:
        return "SITE_RDEL";
    case TARVEX_GFS_CMD_SITE_CHMOD:
        return "SITE_CHMOD";
    default:
        return "OTHER";
    }
}

} // namespace

void Session::cmd_pwd(const std::string &)
{
    reply(257, quoted(cwd_) + " is the current directory.");
}

// A plug-in that resolves paths itself (links in its storage) names the
// folder a CWD really reaches.
bool Session::real_path(std::string &path, tarvex_result_t &result)
{
    if (!(iface_->descriptor & TARVEX_GFS_DSI_DESCRIPTOR_HAS_REALPATH) ||
        iface_->realpath_func == nullptr)
        return true;
    char *out = nullptr;
    PluginCall c;
    call_plugin(c, [&](tarvex_gfs_operation_t) {
        call_finished(c, iface_->realpath_func(path.c_str(), &out, session_arg_));
    });
    result = c.result;
    if (result == TARVEX_SUCCESS && out != nullptr && out[0] == '/')
        path = resolve_path("/", "/", out);
    free(out);
    return result == TARVEX_SUCCESS;
}

// For the commands that need their path to exist: on failure the client
// has its error reply and the command is over.
bool Session::stat_or_reply(const std::string &path, StatEntry &e)
{
    tarvex_result_t r;
    if (stat_one(path, e, r))
        return true;
    reply_error(r, 550);
    return false;
}

void Session::cmd_cwd(const std::string &arg)
{
    std::string path = path_arg(arg.empty() ? home_ : arg);
    StatEntry e;
    tarvex_result_t r;
    if (!real_path(path, r) || !stat_one(path, e, r)) {
        reply_error(r, 550);
        return;
    }
    if (!is_dir(e)) {
        reply(550, path + ": Not a directory.");
        return;
    }
    cwd_ = path;
    // No path in the text: clients that look for one after "to" took the
    // sentence's full stop for part of it.
    reply(250, "CWD command successful.");
}

void Session::cmd_cdup(const std::string &)
{
    cmd_cwd("..");
}

void Session::simple_command(tarvex_gfs_command_type_t type, const std::string &path, int ok_code,
                             const std::string &ok_text, const char *from)
{
    tarvex_gfs_command_info_t info{};
    info.command = type;
    info.pathname = const_cast<char *>(path.c_str());
    info.from_pathname = const_cast<char *>(from);
    info.cksm_length = -1;
    std::string response;
    tarvex_result_t r;
    std::string answer;
    if (run_command(info, response, r)) {
        reply(ok_code, ok_text);
        answer = std::to_string(ok_code) + " " + ok_text;
    } else {
        answer = reply_error(r, 550);
    }
    audit(audit_name(type), from != nullptr ? from : path, from != nullptr ? path : "", answer);
}

void Session::audit(const char *command, const std::string &path, const std::string &second,
                    const std::string &reply)
{
    if (ctx_.audit_log == nullptr)
        return;
    AuditRecord r;
    r.when = time(nullptr);
    r.host = host_of(ep_.peer);
    r.user = user_;
    r.command = command;
    r.path = path;
    r.second = second;
    r.reply = reply;
    ctx_.audit_log->send(audit_line(r));
}

void Session::cmd_mkd(const std::string &arg)
{
    std::string path = path_arg(arg);
    if (path == "/") {
        // The root always exists; a plug-in would be asked for a folder
        // without a name in a parent without a path, and answer that.
        reply(550, "The root folder already exists.");
        return;
    }
    simple_command(TARVEX_GFS_CMD_MKD, path, 257, quoted(path) + " created.");
}

void Session::cmd_rmd(const std::string &arg)
{
    std::string path = path_arg(arg);
    if (path == "/") {
        reply(550, "The root folder cannot be removed.");
        return;
    }
    simple_command(TARVEX_GFS_CMD_RMD, path, 250, path + " removed.");
}

void Session::cmd_dele(const std::string &arg)
{
    std::string path = path_arg(arg);
    simple_command(TARVEX_GFS_CMD_DELE, path, 250, path + " deleted.");
}

void Session::cmd_rnfr(const std::string &arg)
{
    std::string path = path_arg(arg);
    if (path == "/") {
        reply(550, "The root folder cannot be renamed.");
        return;
    }
    StatEntry e;
    if (!stat_or_reply(path, e))
        return;
    rnfr_ = path;
    reply(350, "Ready for RNTO.");
}

void Session::cmd_rnto(const std::string &arg)
{
    if (rnfr_.empty()) {
        reply(503, "RNFR required first.");
        return;
    }
    std::string from = std::move(rnfr_);
    rnfr_.clear();
    std::string to = path_arg(arg);
    if (to == "/") {
        reply(553, "Cannot rename to the root folder.");
        return;
    }
    simple_command(TARVEX_GFS_CMD_RNTO, to, 250, "Renamed " + from + " to " + to + ".",
                   from.c_str());
}

void Session::cmd_size(const std::string &arg)
{
    std::string path = path_arg(arg);
    StatEntry e;
    if (!stat_or_reply(path, e))
        return;
    if (!S_ISREG(e.mode)) {
        reply(550, path + ": not a regular file.");
        return;
    }
    reply(213, std::to_string(e.size));
}

void Session::cmd_mdtm(const std::string &arg)
{
    std::string path = path_arg(arg);
    StatEntry e;
    if (!stat_or_reply(path, e))
        return;
    reply(213, mdtm_time(e.mtime));
}

void Session::cmd_mlst(const std::string &arg)
{
    std::string path = path_arg(arg);
    StatEntry e;
    if (!stat_or_reply(path, e))
        return;
    reply(250, "Listing " + path + "\n" + mlst_facts(e, facts_, false, path, path) + "\nEnd");
}

void Session::cmd_cksm(const std::string &arg)
{
    CksmArgs a;
    std::string why;
    if (int code = parse_cksm(arg, a, why)) {
        reply(code, why);
        return;
    }
    std::string path = path_arg(a.path);
    tarvex_gfs_command_info_t info{};
    info.command = TARVEX_GFS_CMD_CKSM;
    info.pathname = path.data();
    info.cksm_alg = a.algorithm.data();
    info.cksm_offset = a.offset;
    info.cksm_length = a.length;
    std::string response;
    tarvex_result_t r;
    if (!run_command(info, response, r)) {
        reply_error(r, 550);
        return;
    }
    if (response.empty()) {
        reply(504, "Checksum algorithm " + a.algorithm + " is not supported.");
        return;
    }
    reply(213, response);
}

} // namespace tarvex_server
