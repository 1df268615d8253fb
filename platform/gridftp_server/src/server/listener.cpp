#include "listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "log.h"
#include "mark_registry.h"
#include "metrics.h"

namespace tarvex_server {

namespace {

int signal_pipe[2] = {-1, -1};
volatile sig_atomic_t stopping = 0;
volatile sig_atomic_t reopen_wanted = 0;
volatile sig_atomic_t reload_wanted = 0;

void on_signal(int sig)
{
    int saved = errno;
    if (sig == SIGTERM || sig == SIGINT)
        stopping = 1;
    if (sig == SIGHUP) {
        reopen_wanted = 1;
        reload_wanted = 1;
    }
    char c = 0;
    if (write(signal_pipe[1], &c, 1) < 0) {
        // the pipe is full: a wake-up is pending anyway
    }
    errno = saved;
}

void install_handlers()
{
    if (pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGCHLD, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
}

int session_control_fd = -1;
volatile sig_atomic_t session_terminated = 0;
volatile sig_atomic_t session_logged_in = 0;

// SIGTERM in a session: end it the way a vanished client would, so that a
// running transfer is stopped and the plug-in's session is closed properly.
void on_session_term(int)
{
    session_terminated = 1;
    if (session_control_fd >= 0)
        shutdown(session_control_fd, SHUT_RDWR);
}

// SIGUSR1 in a session: the listening process gives its place to a new
// connection (take_connection()), which only a session that has not logged
// in gives up.  One that has, though the listening process had not heard
// of it yet, goes on.
void on_session_drop(int)
{
    if (session_logged_in == 0 && session_control_fd >= 0)
        shutdown(session_control_fd, SHUT_RDWR);
}

// SIGHUP is for the listening process (its transfer log); a session that
// gets it too, from a "kill -HUP" of every process of the program, goes on.
// A handler rather than SIG_IGN, which a credential command run by the
// session would inherit.
void on_session_hup(int) {}

void reset_handlers_in_child(int control_fd)
{
    struct sigaction sa{};
    sa.sa_handler = SIG_DFL;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGCHLD, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    session_control_fd = control_fd;
    sa.sa_handler = on_session_term;
    sigaction(SIGTERM, &sa, nullptr);
    sa.sa_handler = on_session_drop;
    sigaction(SIGUSR1, &sa, nullptr);
    sa.sa_handler = on_session_hup;
    sa.sa_flags = SA_RESTART;
    sigaction(SIGHUP, &sa, nullptr);
    close(signal_pipe[0]);
    close(signal_pipe[1]);
}

// The other end of the login channel: a session process's, -1 in the
// listening process (and in a session that is not one of its children).
int login_channel = -1;

// A session process, as the listening process sees it.
struct Child {
    std::string host;         // the client's address
    unsigned long long order; // connections accepted before this one
    int record;               // in the TLS session registry (mark_registry.h)
    bool logged_in = false;   // reported by the session (report_login())
    bool dropped = false;     // ended to make room, not yet reaped
};
using Children = std::map<pid_t, Child>;

void reap(Children &children)
{
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid <= 0)
            return;
        auto it = children.find(pid);
        if (it != children.end()) {
            mark_registry::release(it->second.record);
            children.erase(it);
        }
        if (WIFSIGNALED(status))
            log_server("session " + std::to_string(pid) + " ended by signal " +
                       std::to_string(WTERMSIG(status)));
    }
}

// Places held: sessions not dropped, from `host` only when it is given.
int places_held(const Children &children, const std::string *host)
{
    int n = 0;
    for (const auto &[pid, c] : children)
        n += !c.dropped && (host == nullptr || c.host == *host);
    return n;
}

// The stranger whose place a new connection takes, 0 when there is none:
// the oldest of `host`'s, or with no host the oldest of the address that
// holds the most strangers.
pid_t stranger_to_replace(const Children &children, const std::string *host)
{
    std::map<std::string, int> strangers;
    for (const auto &[pid, c] : children)
        if (!c.dropped && !c.logged_in)
            ++strangers[c.host];
    int most = 0;
    for (const auto &[h, n] : strangers)
        most = std::max(most, n);
    pid_t victim = 0;
    unsigned long long oldest = 0;
    for (const auto &[pid, c] : children) {
        if (c.dropped || c.logged_in)
            continue;
        bool candidate = host != nullptr ? c.host == *host : strangers[c.host] == most;
        if (candidate && (victim == 0 || c.order < oldest)) {
            victim = pid;
            oldest = c.order;
        }
    }
    return victim;
}

// Whether a new connection from `host` gets a session: nullptr when it
// does (in the place of `victim` unless that is 0), else the refusal.
// Dropped sessions still running count against a limit of their own, so
// that no flood can make the processes pile up.
const char *admission(const Children &children, const std::string &host, const Options &opts,
                      pid_t &victim)
{
    victim = 0;
    const char *busy = "421 Too many sessions, try again later.\r\n";
    if (static_cast<long long>(children.size()) >= 2LL * opts.max_sessions)
        return busy;
    if (places_held(children, &host) >= opts.max_per_address) {
        victim = stranger_to_replace(children, &host);
        return victim != 0 ? nullptr
                           : "421 Too many sessions from your address, try again later.\r\n";
    }
    if (places_held(children, nullptr) >= opts.max_sessions) {
        victim = stranger_to_replace(children, nullptr);
        return victim != 0 ? nullptr : busy;
    }
    return nullptr;
}

// Logins the sessions report (report_login()): each datagram is the
// process id of a session that has logged in.
void take_logins(int channel, Children &children)
{
    pid_t pid = 0;
    while (recv(channel, &pid, sizeof pid, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof pid)) {
        auto it = children.find(pid);
        if (it != children.end()) {
            // A session asked to give up its place that logged in first
            // keeps it (on_session_drop()).
            it->second.logged_in = true;
            it->second.dropped = false;
        }
    }
}

std::string peer_host(int fd)
{
    sockaddr_storage peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) != 0)
        return "";
    return host_of(peer);
}

// The logs sessions send their lines to (the transfer log, the audit
// log), in the listening process: each file opened again after SIGHUP,
// before any waiting line is written, so that from now on every line goes
// to the file that has the name now; then the waiting lines.
void tend(const ServerContext &ctx)
{
    bool reopen = reopen_wanted != 0;
    reopen_wanted = 0;
    for (TransferLog *log : {ctx.transfer_log, ctx.audit_log}) {
        if (log == nullptr)
            continue;
        std::string err;
        if (reopen && log->reopen(err))
            log_server(log->name() + " reopened");
        else if (reopen)
            log_server(log->name() + " not reopened, the old file goes on: " + log_field(err));
        log->drain();
    }
}

[[noreturn]] void run_session(int fd, const ServerContext &ctx, bool implicit_tls)
{
    Endpoints ep;
    socklen_t len = sizeof ep.local;
    getsockname(fd, reinterpret_cast<sockaddr *>(&ep.local), &len);
    len = sizeof ep.peer;
    getpeername(fd, reinterpret_cast<sockaddr *>(&ep.peer), &len);
    for (TransferLog *log : {ctx.transfer_log, ctx.audit_log})
        if (log != nullptr)
            log->enter_session();
    tarvex_module_activate(&tarvex_i_gfs_module);
    {
        Session s(fd, ctx, ep, implicit_tls);
        s.run();
    }
    // A normal exit, so that leak checkers see the session's end too.
    exit(0);
}

} // namespace

int open_listener(const Options &opts, int &port, std::string &err)
{
    return open_listener_on(opts.bind, opts.port, port, err);
}

int open_listener_on(const std::string &bind_addr, int wanted, int &port, std::string &err)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *res = nullptr;
    std::string service = std::to_string(wanted);
    int rc = getaddrinfo(bind_addr.c_str(), service.c_str(), &hints, &res);
    if (rc != 0) {
        err = bind_addr + ": " + gai_strerror(rc);
        return -1;
    }
    int fd = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        err = strerror(errno);
        freeaddrinfo(res);
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (res->ai_family == AF_INET6) {
        int zero = 0; // "::" serves IPv4 clients too
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
    }
    if (bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 128) != 0) {
        err = bind_addr + " port " + service + ": " + strerror(errno);
        close(fd);
        freeaddrinfo(res);
        return -1;
    }
    freeaddrinfo(res);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len);
    port = bound.ss_family == AF_INET
               ? ntohs(reinterpret_cast<sockaddr_in *>(&bound)->sin_port)
               : ntohs(reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port);
    return fd;
}

namespace {

// The channel sessions report their logins on (report_login()): a
// datagram socket, so that each report is whole; the listening process
// reads its end without waiting.
void open_login_channel(int logins[2])
{
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, logins) == 0) {
        timeval tv{2, 0}; // a session waits this long at most to report
        setsockopt(logins[1], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        return;
    }
    logins[0] = logins[1] = -1;
    log_server(std::string("no login reports, every session counts as a stranger's: ") +
               strerror(errno));
}

// What the listening process keeps between connections.
struct Listening {
    Listening(const ListenSockets &s, const ServerContext &c)
        : listen_fd(s.ftp), sockets(s), ctx(c) {}
    int listen_fd;
    const ListenSockets &sockets;
    const ServerContext &ctx;
    int logins[2] = {-1, -1};
    Children children;
    unsigned long long accepted = 0;
};

// In a new session process: the listening process's sockets closed.
void close_listening(const Listening &l)
{
    close(l.listen_fd);
    if (l.sockets.implicit_tls >= 0)
        close(l.sockets.implicit_tls);
    if (l.sockets.metrics != nullptr)
        l.sockets.metrics->close_all();
    close(l.logins[0]);
}

// A new connection `fd`: a session process for it (in the place of a
// stranger's when none is free), or a refusal.
void take_connection(Listening &l, int fd, bool implicit_tls)
{
    std::string host = peer_host(fd);
    take_logins(l.logins[0], l.children);
    pid_t victim = 0;
    if (const char *busy = admission(l.children, host, *l.ctx.opts, victim)) {
        // A client of the implicit TLS port would take a reply in the clear
        // for a broken handshake: it gets the end of the connection alone.
        if (!implicit_tls && send(fd, busy, strlen(busy), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            // the client left already
        }
        close(fd);
        metrics::add(metrics::Family::sessions_refused, "");
        return;
    }
    if (victim != 0) {
        // Its session ends as at a lost client (on_session_drop()).
        l.children[victim].dropped = true;
        kill(victim, SIGUSR1);
        log_server("ending session " + std::to_string(victim) + " from " +
                   l.children[victim].host + ", not logged in, for a new connection from " + host);
    }
    int record = mark_registry::assign([&l](int i) {
        for (const auto &[pid, child] : l.children)
            if (child.record == i)
                return true;
        return false;
    });
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        close_listening(l);
        login_channel = l.logins[1];
        mark_registry::enter(record);
        reset_handlers_in_child(fd);
        run_session(fd, l.ctx, implicit_tls);
    }
    close(fd);
    if (pid > 0) {
        l.children.emplace(pid, Child{host, l.accepted++, record});
        metrics::add(metrics::Family::sessions, "");
    } else
        log_server(std::string("fork: ") + strerror(errno));
}

// The channels of the logs sessions send to, for poll().
void log_channels(const ServerContext &ctx, std::vector<pollfd> &p)
{
    for (TransferLog *log : {ctx.transfer_log, ctx.audit_log})
        p.push_back({log != nullptr ? log->channel() : -1, POLLIN, 0});
}

// A connection waiting on `fd` (a listening socket), if any.
void accept_on(Listening &l, int fd, bool implicit_tls)
{
    int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0)
        take_connection(l, client, implicit_tls);
    else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
        usleep(100000); // out of resources: let sessions end first
}

// SIGTERM or SIGINT: every session is told to end, and killed when it has
// not ended in time.
void stop_sessions(Listening &l)
{
    log_server("stopping, " + std::to_string(l.children.size()) + " session(s) open");
    for (const auto &[pid, child] : l.children)
        kill(pid, SIGTERM);
    // Each session cancels what its plug-in does and ends within its grace
    // period; a little more for closing connections and exiting.  The
    // transfers they end meanwhile are logged.
    long long deadline = now_ms() + (l.ctx.opts->cancel_grace + 2) * 1000LL;
    while (!l.children.empty() && now_ms() < deadline) {
        std::vector<pollfd> p;
        log_channels(l.ctx, p);
        poll(p.data(), p.size(), 100);
        reap(l.children);
        tend(l.ctx);
    }
    if (l.children.empty())
        log_server("stopped, every session ended");
    else
        log_server("stopped, killing " + std::to_string(l.children.size()) +
                   " session(s) that did not end");
    for (const auto &[pid, child] : l.children)
        kill(pid, SIGKILL);
    tend(l.ctx);
}

} // namespace

int serve(const ListenSockets &sockets, const ServerContext &ctx)
{
    signal(SIGPIPE, SIG_IGN);
    install_handlers();
    Listening l(sockets, ctx);
    open_login_channel(l.logins);
    std::string err;
    if (!mark_registry::open(std::max(256, 4 * ctx.opts->max_sessions), err))
        log_server(err + "; a data connection resumes its own control connection's session");
    while (!stopping) {
        std::vector<pollfd> p = {{sockets.ftp, POLLIN, 0},
                                 {sockets.implicit_tls, POLLIN, 0},
                                 {signal_pipe[0], POLLIN, 0},
                                 {l.logins[0], POLLIN, 0}};
        log_channels(ctx, p);
        size_t metrics_at = p.size();
        if (sockets.metrics != nullptr)
            sockets.metrics->want(p);
        int n = poll(p.data(), p.size(), 1000);
        if (p[2].revents & POLLIN) {
            char buf[64];
            while (read(signal_pipe[0], buf, sizeof buf) > 0) {
            }
        }
        reap(l.children);
        if (reload_wanted) {
            reload_wanted = 0;
            if (ctx.reload)
                ctx.reload(); // for the sessions that start from now on
        }
        tend(ctx);
        take_logins(l.logins[0], l.children);
        metrics::set(metrics::Family::sessions_open, static_cast<double>(l.children.size()));
        if (sockets.metrics != nullptr)
            sockets.metrics->serve(p, metrics_at, metrics::page);
        for (int i : {0, 1})
            if (n > 0 && (p[i].revents & POLLIN))
                accept_on(l, p[i].fd, i == 1);
    }
    stop_sessions(l);
    close(sockets.ftp);
    if (sockets.implicit_tls >= 0)
        close(sockets.implicit_tls);
    close(l.logins[0]);
    close(l.logins[1]);
    return 0;
}

bool session_terminated_by_signal()
{
    return session_terminated != 0;
}

void report_login()
{
    if (login_channel < 0)
        return;
    // From now on the session keeps its place (on_session_drop()).  The
    // listening process takes reports at every turn of its loop, so a full
    // channel empties within moments; a report that never arrives leaves
    // the session counted as a stranger's, and a new connection may then
    // be let in beside it: a place too many, never one lost.
    session_logged_in = 1;
    pid_t pid = getpid();
    if (send(login_channel, &pid, sizeof pid, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof pid))
        log_session(std::string("the listening process was not told of the login: ") +
                    strerror(errno));
}

} // namespace tarvex_server
