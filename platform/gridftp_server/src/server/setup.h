// What the listening process reads and checks before it serves, and reads
// again at SIGHUP: the options (with the --config file), the password
// file, the TLS certificate and key, and the configuration data files that
// the plug-in checks (tarvex_gfs_config_checker_t).  A session takes the
// setup in force when its client connected; a setup that is not usable is
// never put in force, so a mistake made while the server runs leaves the
// old one serving.
#pragma once

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "auth.h"
#include "options.h"

namespace tarvex_server {

struct ServerContext;

struct Setup {
    Setup() = default;
    ~Setup();
    Setup(const Setup &) = delete;
    Setup &operator=(const Setup &) = delete;

    Options opts;
    SSL_CTX *tls = nullptr; // owned; NULL without --tls-cert
    PasswordFile passwords; // empty with --anonymous-map
    // The data of the --config-file files the plug-in checks, by key.
    std::map<std::string, std::string> checked_data;
    // What was found, a line for each thing (--check-config prints them).
    std::vector<std::string> found;
    // What may be a mistake without making the setup unusable.
    std::vector<std::string> warnings;
};

// Reads and checks all that `opts` names, the plug-in (found through
// `plugin_path`) checking its data.  NULL when anything is not usable:
// `problems` then holds a line for each, naming the file (line, key).
std::unique_ptr<Setup> load_setup(const Options &opts, const std::string &plugin_path,
                                  std::vector<std::string> &problems);

// The setup in force, and its reload.
class Configuration {
public:
    // The folder the server starts in names the relative paths.
    Configuration(int argc, char **argv, std::string plugin_path, std::string start_dir)
        : argc_(argc), argv_(argv), plugin_path_(std::move(plugin_path)),
          start_dir_(std::move(start_dir))
    {
    }

    // The first setup, from options already parsed; false with `problems`.
    bool start(const Options &opts, std::vector<std::string> &problems);
    const Setup &current() const { return *current_; }

    // Points `ctx` at the setup in force (which a reload replaces: read
    // its fields at each use, keep no pointer into them).
    void publish(ServerContext &ctx) const;

    // SIGHUP: the --config file, then everything it names, read again.
    // When all is usable it is put in force (true); either way the log
    // says what changed, or why the old setup stays.  Settings the
    // listening process takes only when it starts (its port, ...) keep
    // their old values until a restart, and the log says so.
    // `ctx` is pointed at the new setup.
    bool reload(ServerContext &ctx);

private:
    // Lines for the log: what `file` (the --config file read again) and
    // `next` change.
    std::vector<std::string> changes(const std::vector<Setting> &file, const Setup &next) const;

    int argc_;
    char **argv_;
    std::string plugin_path_;
    std::string start_dir_;
    std::unique_ptr<Setup> current_;
};

// Settings that only a restart changes: the listening process opens its
// socket, files and tables with them once.
bool restart_only(const std::string &key);

} // namespace tarvex_server
