#include "xferlog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <memory>

#include "log.h"

namespace tarvex_server {

namespace {

// A line holds a path and a login of at most a command line each (4 KiB),
// escaped at most four bytes for one: far below this.
constexpr size_t max_line = size_t{64} * 1024;
// Lines written per drain(): the listening process goes back to accepting
// clients in between, however fast sessions send.
constexpr int max_lines_per_drain = 256;

// "Tue Mar 04 09:15:02 2025".  Spelled out here rather than by strftime(),
// whose names follow the locale a plug-in may have set in the session.
std::string xferlog_time(time_t t)
{
    static const char *const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%s %s %02d %02d:%02d:%02d %d", days[tm.tm_wday % 7],
             months[tm.tm_mon % 12], tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
             tm.tm_year + 1900);
    return buf;
}

// What a session sends must be one line of printable text, as
// xferlog_line() makes it: anything else is not written to the file.
bool well_formed(const char *p, size_t n)
{
    if (n < 2 || p[n - 1] != '\n')
        return false;
    for (size_t i = 0; i + 1 < n; ++i) {
        auto c = static_cast<unsigned char>(p[i]);
        if (c < 0x20 || c == 0x7f)
            return false;
    }
    return true;
}

int open_file(const std::string &path, std::string &err)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
    if (fd < 0)
        err = path + ": " + strerror(errno);
    return fd;
}

void close_fd(int &fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

} // namespace

std::string xferlog_line(const XferRecord &r)
{
    long long seconds = std::max(1LL, (r.duration_ms + 500) / 1000);
    // Bytes move unchanged whatever TYPE the client chose: every transfer
    // is binary ("b").  No special action ("_"), service "ftp", no RFC 931
    // identity ("0 *").
    return xferlog_time(r.end) + " " + std::to_string(seconds) + " " + log_word(r.host) + " " +
           std::to_string(r.bytes) + " " + log_word(r.path) + " b _ " + (r.incoming ? "i" : "o") +
           " " + (r.anonymous ? "a" : "r") + " " + log_word(r.user) + " ftp 0 * " +
           (r.complete ? "c" : "i") + (r.complete && r.end_unconfirmed ? " end-unconfirmed" : "") +
           "\n";
}

TransferLog::~TransferLog()
{
    close_fd(file_);
    close_fd(receiver_);
    close_fd(sender_);
}

bool TransferLog::open(const std::string &path, std::string &err)
{
    path_ = path;
    if (path_.empty() || path_[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd) == nullptr) {
            err = std::string("cannot tell the current folder: ") + strerror(errno);
            return false;
        }
        path_ = std::string(cwd) + "/" + path_;
    }
    file_ = open_file(path_, err);
    if (file_ < 0)
        return false;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) != 0) {
        err = std::string("socketpair: ") + strerror(errno);
        return false;
    }
    receiver_ = sv[0];
    sender_ = sv[1];
    timeval tv{send_timeout_s, 0};
    setsockopt(sender_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    // The listening process must never wait on a session.
    fcntl(receiver_, F_SETFL, fcntl(receiver_, F_GETFL) | O_NONBLOCK);
    return true;
}

void TransferLog::write_line(const char *line, size_t len)
{
    // One write() per line: with O_APPEND it lands whole at the end of the
    // file, beside anything else appending to it.  Only a full disk or a
    // signal cuts it short; the rest then follows, so the line still ends
    // with its newline.
    while (len > 0) {
        ssize_t n = write(file_, line, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            log_server(name_ + " " + log_field(path_) + ": " + strerror(errno) + "; line: " +
                       std::string(line, len - 1));
            return;
        }
        line += n;
        len -= static_cast<size_t>(n);
    }
}

void TransferLog::drain()
{
    if (receiver_ < 0)
        return;
    if (!buf_)
        buf_ = std::make_unique<char[]>(max_line);
    char *buf = buf_.get();
    for (int i = 0; i < max_lines_per_drain; ++i) {
        ssize_t n = recv(receiver_, buf, max_line, MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return; // nothing more waiting (or the socket failed: poll says)
        auto len = static_cast<size_t>(n);
        if (len > max_line || !well_formed(buf, len)) {
            log_server(name_ + ": a session sent a malformed line (" + std::to_string(len) +
                       " bytes), not written: " +
                       log_field(std::string_view(buf, std::min(len, size_t{256}))));
            continue;
        }
        write_line(buf, len);
    }
}

bool TransferLog::reopen(std::string &err)
{
    int fd = open_file(path_, err);
    if (fd < 0)
        return false;
    close_fd(file_);
    file_ = fd;
    return true;
}

void TransferLog::enter_session()
{
    close_fd(file_);
    close_fd(receiver_);
}

void TransferLog::send(const std::string &line)
{
    ssize_t n = -1;
    do {
        n = sender_ >= 0 ? ::send(sender_, line.data(), line.size(), MSG_NOSIGNAL) : -1;
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(line.size()))
        return;
    const char *why = n < 0 && sender_ >= 0 ? strerror(errno) : "not open";
    log_session(name_ + ": " + why + "; line: " + line.substr(0, line.size() - 1));
}

} // namespace tarvex_server
