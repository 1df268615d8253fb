// tarvex-gridftp-server: an FTP server in front of a storage plug-in.
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "auth.h"
#include "listener.h"
#include "metrics.h"
#include "metrics_http.h"
#include "options.h"
#include "setup.h"
#include "xferlog.h"

using namespace tarvex_server;

namespace {

std::string default_plugin_path()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return "";
    std::string exe(buf, static_cast<size_t>(n));
    std::string dir = exe.substr(0, exe.rfind('/'));
    return dir + "/" TARVEX_PLUGIN_DIR_FROM_BINDIR;
}

// --check-config: what was found on standard output, the problems on
// standard error; the exit status.
int report(const Options &opts, const Setup *setup, const std::vector<std::string> &problems)
{
    if (!opts.config_path.empty()) {
        printf("configuration file %s: %zu setting(s)\n", opts.config_path.c_str(),
               opts.file_settings.size());
        for (const Setting &s : opts.file_settings)
            printf("  line %d: %s = %s\n", s.line, s.key.c_str(), s.value.c_str());
    }
    if (setup != nullptr) {
        for (const std::string &line : setup->found)
            printf("%s\n", line.c_str());
        for (const std::string &line : setup->warnings)
            printf("warning: %s\n", line.c_str());
    }
    fflush(stdout);
    for (const std::string &problem : problems)
        fprintf(stderr, "tarvex-gridftp-server: %s\n", problem.c_str());
    if (!problems.empty())
        return 2;
    printf("the configuration is usable\n");
    return 0;
}

void detach()
{
    if (fork() > 0)
        _exit(0);
    setsid();
    if (fork() > 0)
        _exit(0);
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        if (null > STDERR_FILENO)
            close(null);
    }
    if (chdir("/") != 0) {
        // staying where we are is harmless
    }
}

// Written whole under a temporary name, so a reader never sees half.
bool write_port_file(const std::string &path, int port)
{
    if (path.empty())
        return true;
    std::string tmp = path + ".tmp";
    std::ofstream(tmp) << port << "\n";
    if (rename(tmp.c_str(), path.c_str()) == 0)
        return true;
    fprintf(stderr, "tarvex-gridftp-server: cannot write %s\n", path.c_str());
    return false;
}

// The ports beside the FTP port.
struct MorePorts {
    int implicit_tls = -1;
    int metrics = -1;
};

// The sockets of --implicit-tls-port and --metrics-listen, and the shared
// table the metrics come from; false with `err`.
bool open_more_sockets(const Options &opts, ListenSockets &sockets, MetricsHttp &http,
                       MorePorts &ports, std::string &err)
{
    if (opts.implicit_tls_port >= 0) {
        sockets.implicit_tls =
            open_listener_on(opts.bind, opts.implicit_tls_port, ports.implicit_tls, err);
        if (sockets.implicit_tls < 0) {
            err = "cannot listen on " + err + " (--implicit-tls-port)";
            return false;
        }
    }
    if (opts.metrics_listen.empty())
        return true;
    std::string host;
    int wanted = 0;
    split_host_port(opts.metrics_listen, host, wanted);
    int fd = open_listener_on(host, wanted, ports.metrics, err);
    if (fd < 0) {
        err = "cannot listen on " + err + " (--metrics-listen)";
        return false;
    }
    http.listen_on(fd);
    sockets.metrics = &http;
    return metrics::open(err);
}

} // namespace

int main(int argc, char **argv)
{
    Options opts;
    std::string err;
    int rc = parse_options(argc, argv, opts, err);
    if (rc > 0)
        return 0;
    if (rc < 0) {
        fprintf(stderr, "tarvex-gridftp-server: %s\n", err.c_str());
        return 2;
    }
    std::string plugin_path = opts.dsi_path.empty() ? default_plugin_path() : opts.dsi_path;
    char start_dir[PATH_MAX];
    Configuration conf(argc, argv, plugin_path,
                       getcwd(start_dir, sizeof start_dir) != nullptr ? start_dir : "");
    std::vector<std::string> problems;
    bool usable = conf.start(opts, problems);
    if (opts.check_config)
        return report(opts, usable ? &conf.current() : nullptr, problems);
    for (const std::string &problem : problems)
        fprintf(stderr, "tarvex-gridftp-server: %s\n", problem.c_str());
    if (!usable)
        return 2;
    for (const std::string &warning : conf.current().warnings)
        fprintf(stderr, "tarvex-gridftp-server: warning: %s\n", warning.c_str());

    ServerContext ctx;
    ctx.plugin_path = plugin_path;
    conf.publish(ctx);
    ctx.reload = [&conf, &ctx] { conf.reload(ctx); };
    TransferLog transfer_log;
    if (!opts.transfer_log.empty()) {
        if (!transfer_log.open(opts.transfer_log, err)) {
            fprintf(stderr, "tarvex-gridftp-server: transfer log: %s\n", err.c_str());
            return 2;
        }
        ctx.transfer_log = &transfer_log;
    }
    TransferLog audit_log("audit log");
    if (!opts.audit_log.empty()) {
        if (!audit_log.open(opts.audit_log, err)) {
            fprintf(stderr, "tarvex-gridftp-server: audit log: %s\n", err.c_str());
            return 2;
        }
        ctx.audit_log = &audit_log;
    }

    int port = 0;
    int fd = open_listener(opts, port, err);
    if (fd < 0) {
        fprintf(stderr, "tarvex-gridftp-server: cannot listen on %s\n", err.c_str());
        return 1;
    }
    ListenSockets sockets;
    sockets.ftp = fd;
    MetricsHttp metrics_http;
    MorePorts more;
    if (!open_more_sockets(opts, sockets, metrics_http, more, err)) {
        fprintf(stderr, "tarvex-gridftp-server: %s\n", err.c_str());
        return 1;
    }
    if (!opts.foreground)
        detach();
    // The FTP port's file last: once it is there, every socket is.
    if (!write_port_file(opts.implicit_tls_port_file, more.implicit_tls) ||
        !write_port_file(opts.metrics_port_file, more.metrics) ||
        !write_port_file(opts.port_file, port))
        return 1;
    fprintf(stderr, "tarvex-gridftp-server: listening on %s port %d, storage %s\n",
            opts.bind.c_str(), port, opts.dsi.c_str());
    if (sockets.implicit_tls >= 0)
        fprintf(stderr, "tarvex-gridftp-server: implicit TLS on port %d\n", more.implicit_tls);
    if (sockets.metrics != nullptr)
        fprintf(stderr, "tarvex-gridftp-server: metrics on port %d (GET /metrics)\n",
                more.metrics);
    return serve(sockets, ctx);
}
