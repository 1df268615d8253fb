// The transfer log (--transfer-log FILE): one line per finished file
// transfer (RETR, STOR, APPE) in the xferlog format that FTP log analysers
// read:
//
//   Tue Mar 04 09:15:02 2025 3 192.0.2.7 1048576 /reports/q1.pdf b _ o r alice ftp 0 * c
//
// time the transfer ended (local, five words), seconds it took, client
// address, bytes moved, path, transfer type, special action, direction (o:
// download, i: upload), access mode (a: --anonymous-map, r: a password
// login), login name, service, authentication method, authenticated user
// id, and completion status (c: complete, i: incomplete).  A complete
// upload of unannounced size whose protected data connection ended without
// TLS close_notify gets one more word, "end-unconfirmed": the client may
// have been cut off, and the file with it.
//
// Only the listening process writes the file.  Sessions run as their
// login's local account with the plug-in's code in them: they could not
// reopen a file kept for the server's account after a rotation, and should
// not hold a descriptor that lets them write anything at all into it.  Each
// session sends its finished lines as datagrams on a socket shared with the
// listening process, which checks that each is one line and appends it to
// the file with one write() (O_APPEND).  SIGHUP makes the listening process
// open the file by its name again, so that every line written after that
// goes to the new file whatever session it comes from; lines already sent
// are written, to one file or the other, and none is lost.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <utility>

namespace tarvex_server {

struct XferRecord {
    time_t end = 0;           // when the transfer ended
    long long duration_ms = 0;
    std::string host;         // the client's address
    long long bytes = 0;      // bytes moved on the data connection
    std::string path;
    bool incoming = false;    // a store (STOR, APPE)
    bool anonymous = false;   // the server runs with --anonymous-map
    std::string user;         // the login name
    bool complete = false;    // answered 226
    bool end_unconfirmed = false; // an upload ended without TLS close_notify
};

// The line for `r`, newline included.  Path, login and address are single
// words (log_word()): spaces and control bytes in a name cannot shift the
// fields after it.  The duration is in whole seconds, rounded, at least 1:
// analysers divide the bytes by it to show a rate.
std::string xferlog_line(const XferRecord &r);

// The file and its channel serve the audit log (audit.h) too: a log of
// lines sessions send, written by the listening process alone.
class TransferLog {
public:
    // `name` names the log in the server's own log lines.
    explicit TransferLog(std::string name = "transfer log") : name_(std::move(name)) {}
    TransferLog(const TransferLog &) = delete;
    TransferLog &operator=(const TransferLog &) = delete;
    ~TransferLog();

    // Opens (creating it with mode 0640, appending) the file at `path`,
    // made absolute against the current folder so that a reopen finds it
    // after the server has moved to /, and the socket sessions send on.
    bool open(const std::string &path, std::string &err);

    const std::string &name() const { return name_; }

    // ---- the listening process ----
    // Readable when lines are waiting to be written.
    int channel() const { return receiver_; }
    // Writes the waiting lines to the file (a bounded number per call:
    // the channel stays readable while more wait).
    void drain();
    // Opens the file by its name again; on failure the old file goes on
    // being written (`err` says why).
    bool reopen(std::string &err);

    // ---- a session process ----
    // Drops the file and the receiving end: a session only sends.
    void enter_session();
    // Hands one line (from xferlog_line()) to the listening process.
    // Should that fail (the listening process is gone, or has not read for
    // send_timeout_s seconds), the line goes to the session's log on
    // standard error instead, so that it is not lost.
    void send(const std::string &line);

    static constexpr int send_timeout_s = 10;

private:
    void write_line(const char *line, size_t len);

    std::string name_;
    std::string path_;
    std::unique_ptr<char[]> buf_; // drain()'s, one datagram
    int file_ = -1;
    int receiver_ = -1;
    int sender_ = -1;
};

} // namespace tarvex_server
