// Data commands: TYPE, MODE, STRU, PASV, EPSV, PORT, EPRT, REST, ALLO, ABOR,
// RETR, STOR, APPE and STOU (the listings are in commands_list.cpp).
#include <openssl/rand.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <strings.h>

#include "log.h"
#include "metrics.h"
#include "parse.h"
#include "path.h"
#include "session.h"

namespace tarvex_server {

void Session::cmd_type(const std::string &arg)
{
    // TYPE A converts the line ends of files (CR LF on the wire, LF
    // stored); listings are CR LF text in either type.
    char t = static_cast<char>(toupper(static_cast<unsigned char>(arg[0])));
    if (t == 'A') {
        type_ascii_ = true;
        reply(200, "Type set to A.");
        return;
    }
    if (t == 'I' || (t == 'L' && arg.find('8') != std::string::npos)) {
        type_ascii_ = false;
        reply(200, "Type set to I.");
        return;
    }
    reply(504, "Type not supported.");
}

void Session::cmd_mode(const std::string &arg)
{
    if (strcasecmp(arg.c_str(), "S") == 0)
        reply(200, "Mode set to S.");
    else
        reply(504, "Only stream mode is supported.");
}

void Session::cmd_stru(const std::string &arg)
{
    if (strcasecmp(arg.c_str(), "F") == 0)
        reply(200, "Structure set to F.");
    else
        reply(504, "Only file structure is supported.");
}

// After EPSV ALL the client has promised to open data connections with EPSV
// alone; PASV, PORT and EPRT are turned away.
bool Session::refused_after_epsv_all()
{
    if (!epsv_all_)
        return false;
    reply(503, "Only EPSV after EPSV ALL.");
    return true;
}

void Session::cmd_pasv(const std::string &)
{
    if (refused_after_epsv_all())
        return;
    enter_passive(false);
}

// PASV (227) and EPSV (229): a listening data socket, announced.
void Session::enter_passive(bool extended)
{
    std::string text;
    if (!data_.passive(ep_, extended, opts_.pasv_low, opts_.pasv_high, text)) {
        reply(425, "Cannot enter passive mode: " + text + ".");
        return;
    }
    reply(extended ? 229 : 227, text);
}

void Session::cmd_epsv(const std::string &arg)
{
    EpsvArg which = EpsvArg::any;
    std::string why;
    if (int code = parse_epsv(arg, which, why)) {
        reply(code, why);
        return;
    }
    if (which == EpsvArg::all) {
        epsv_all_ = true; // the client's NAT or firewall only lets EPSV through
        reply(200, "EPSV ALL ok.");
        return;
    }
    enter_passive(true);
}

// PORT and EPRT: the address parsed, then checked against the client's.
void Session::active_data(const std::string &arg, bool extended)
{
    if (refused_after_epsv_all())
        return;
    sockaddr_storage target{};
    std::string why;
    int code = extended ? parse_eprt(arg, target, why) : parse_port(arg, target, why);
    if (code == 0 && !data_.active(ep_, target, why))
        code = 501;
    if (code != 0) {
        reply(code, why.empty() || why.back() == '.' ? why : why + ".");
        return;
    }
    reply(200, extended ? "EPRT command successful." : "PORT command successful.");
}

void Session::cmd_port(const std::string &arg)
{
    active_data(arg, false);
}

void Session::cmd_eprt(const std::string &arg)
{
    active_data(arg, true);
}

void Session::cmd_rest(const std::string &arg)
{
    int64_t v = 0;
    std::string why;
    if (int code = parse_rest(arg, v, why)) {
        reply(code, why);
        return;
    }
    if (type_ascii_ && v != 0) {
        // The offset would count the stored bytes for one side and the
        // CR LF bytes on the wire for the other.
        reply(504, "REST is not served in ASCII mode: use TYPE I.");
        return;
    }
    rest_ = v;
    reply(350, "Restarting at " + std::to_string(v) + ". Send RETR or STOR.");
}

void Session::cmd_allo(const std::string &arg)
{
    int64_t v = 0;
    std::string why;
    if (int code = parse_allo(arg, v, why)) {
        reply(code, why);
        return;
    }
    alloc_ = v;
    reply(200, "ALLO " + std::to_string(v) + " bytes noted.");
}

void Session::cmd_abor(const std::string &)
{
    data_.reset();
    reply(225, "No transfer to abort.");
}

// A transfer refused before its data connection was opened: the next one
// needs a new PORT, EPRT, PASV or EPSV, but the listener (and the
// connection the client may have made to it) stays until the client has
// read the refusal.  A client that secures its data connection at once
// (curl over TLS) would otherwise meet a reset before the reply, take it for
// a failed passive connection and read the refusal as the answer to its
// next command.
void Session::retire_data()
{
    data_.hand_over(retired_data_);
}

bool Session::data_allowed()
{
    if (!data_.ready()) {
        reply(425, "Use PORT, EPRT, PASV or EPSV first.");
        return false;
    }
    if (opts_.require_tls && !prot_p_) {
        retire_data();
        reply(521, "Data connections must be protected: use PROT P.");
        return false;
    }
    return true;
}

TransferParams Session::transfer_params(const std::string &what)
{
    TransferParams p;
    p.what = what;
    p.tls = prot_p_ ? ctx_.tls : nullptr;
    p.tls_session_mark = tls_session_mark_;
    p.tls_user_mark = tls_user_mark_;
    p.tls_require_resume = !opts_.tls_data_any_session;
    p.refused = [](const std::string &why) { log_session("data connection refused: " + why); };
    p.io_timeout_ms = opts_.idle_timeout * 1000;
    p.send_reply = [this](int code, const std::string &t) { return ctl_.reply(code, t); };
    p.notify = [this] { wake(); };
    return p;
}

bool Session::finish_transfer(tarvex_result_t result, Transfer &t, int default_code)
{
    std::string failure = t.failure();
    bool ok = result == TARVEX_SUCCESS && failure.empty() && !t.aborted();
    if (ok && !t.began())
        t.begin(false); // a plug-in that had nothing to send still owes the 150
    failure = t.failure();
    ok = ok && failure.empty();
    t.close(ok);
    if (t.began())
        data_.reset();
    else
        retire_data();
    if (t.aborted()) {
        tarvex_error_discard(result);
        reply(426, "Connection closed; transfer aborted.");
        reply(226, "Abort successful.");
    } else if (!failure.empty()) {
        tarvex_error_discard(result);
        ctl_.send_raw(printable(failure) + "\r\n");
    } else if (result != TARVEX_SUCCESS) {
        reply_error(result, default_code);
    } else {
        reply(226, "Transfer complete.");
        return true;
    }
    return false;
}

void Session::transfer(bool store, const std::string &arg, bool append,
                       const std::string &announce)
{
    tarvex_off_t rest = rest_;
    tarvex_off_t alloc = alloc_;
    rest_ = 0;
    alloc_ = 0;
    if (!data_allowed())
        return;
    std::string path = path_arg(arg);
    if (append) {
        // APPE is a store that starts at the end of the existing file.
        StatEntry e;
        tarvex_result_t r = TARVEX_SUCCESS;
        bool found = stat_one(path, e, r);
        if (abort_owed_) {
            // ABOR while the file was looked up: no store follows.
            tarvex_error_discard(r);
            retire_data();
            reply(426, "APPE aborted.");
            return;
        }
        if (found) {
            if (!S_ISREG(e.mode)) {
                retire_data();
                reply(550, path + ": not a regular file.");
                return;
            }
            rest = e.size;
        } else {
            tarvex_error_discard(r);
            rest = 0;
        }
    }
    TransferParams p = transfer_params(path);
    p.range_offset = rest;
    // With an announced size the plug-in checks the count, whatever the
    // end looked like; without one, the end of the connection is the end
    // of the file.
    p.tls_strict_eof = store && alloc == 0 && opts_.tls_strict_eof;
    p.ascii = type_ascii_;
    p.announce = announce;
    Transfer t(data_, p);

    tarvex_gfs_transfer_info_t info{};
    info.pathname = path.data();
    info.partial_offset = rest;
    info.partial_length = -1;
    info.truncate = store && rest == 0;
    // ALLO counts the bytes on the wire; in TYPE A the stored size is
    // known only at the end.
    info.alloc_size = type_ascii_ ? 0 : alloc;
    info.nstreams = 1;
    info.node_count = 1;
    info.stripe_count = 1;

    PluginCall c;
    c.transfer = &t;
    long long t0 = now_ms();
    call_plugin(c, [&](tarvex_gfs_operation_t op) {
        (store ? iface_->recv_func : iface_->send_func)(op, &info, session_arg_);
    });
    bool ok = finish_transfer(c.result, t, 451);
    long long ms = now_ms() - t0;
    std::string note = alloc > 0 ? " (ALLO " + std::to_string(alloc) + ")" : "";
    bool unconfirmed = store && alloc == 0 && t.end_unconfirmed();
    if (unconfirmed)
        note += " (end unconfirmed: no TLS close_notify)";
    if (!ok)
        note += " (failed)";
    log_session(std::string(store ? "STOR " : "RETR ") + log_field(path) + " from " +
                std::to_string(rest) + ": " + std::to_string(t.bytes()) + " bytes in " +
                std::to_string(ms) + " ms" + note);
    log_transfer(store, path, t.bytes(), ms, ok, unconfirmed);
}

void Session::log_transfer(bool store, const std::string &path, long long bytes, long long ms,
                           bool ok, bool end_unconfirmed)
{
    const std::string direction = store ? "upload" : "download";
    metrics::add(metrics::Family::transfers, direction + (ok ? " complete" : " failed"));
    metrics::add(metrics::Family::transfer_bytes, direction, static_cast<double>(bytes));
    if (ctx_.transfer_log == nullptr)
        return;
    XferRecord r;
    r.end = time(nullptr);
    r.duration_ms = ms;
    r.host = host_of(ep_.peer);
    r.bytes = bytes;
    r.path = path;
    r.incoming = store;
    r.anonymous = opts_.anonymous_map;
    r.user = user_;
    r.complete = ok;
    r.end_unconfirmed = end_unconfirmed;
    ctx_.transfer_log->send(xferlog_line(r));
}

void Session::cmd_retr(const std::string &arg)
{
    if (iface_->send_func == nullptr) {
        reply(502, "This storage cannot send files.");
        return;
    }
    transfer(false, arg);
}

void Session::cmd_stor(const std::string &arg)
{
    if (iface_->recv_func == nullptr) {
        reply(502, "This storage cannot store files.");
        return;
    }
    transfer(true, arg);
}

void Session::cmd_appe(const std::string &arg)
{
    if (iface_->recv_func == nullptr) {
        reply(502, "This storage cannot store files.");
        return;
    }
    transfer(true, arg, true);
}

// STOU: a store under a name no item of its folder has, named in the 150
// reply as RFC 1123 (4.1.2.9) has it, "150 FILE: name".  A name the client
// suggests ("STOU tmp.a.txt", as Net::FTP's put_unique sends) is kept as
// the start of the new name, its folder too.  A random end, checked to be
// free, keeps two sessions that suggest the same name apart.
void Session::cmd_stou(const std::string &arg)
{
    if (iface_->recv_func == nullptr) {
        reply(502, "This storage cannot store files.");
        return;
    }
    if (rest_ != 0) {
        reply(503, "STOU makes a new file: REST does not apply.");
        return;
    }
    std::string written = arg.empty() ? "stou" : arg;
    for (int tries = 0; tries < 4; ++tries) {
        unsigned char r[4];
        if (RAND_bytes(r, sizeof r) != 1)
            break;
        char end[16];
        snprintf(end, sizeof end, ".%02x%02x%02x%02x", r[0], r[1], r[2], r[3]);
        std::string name = written + end;
        std::optional<bool> taken = exists_unless_aborted(path_arg(name), "STOU aborted.");
        if (!taken)
            return;
        if (!*taken) {
            transfer(true, name, false, "FILE: " + name);
            return;
        }
    }
    retire_data();
    reply(451, "No unique file name could be found.");
}

} // namespace tarvex_server
