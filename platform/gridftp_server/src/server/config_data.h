// Configuration data handed to the plug-in by key ("config", "creds",
// "renew-creds", ...): the contents of a file the operator named, or the
// standard output of a command (a credential helper) run for the login.
#pragma once

#include <map>
#include <string>

namespace tarvex_server {

class ConfigData {
public:
    // `texts`: data read ahead by the listening process (files whose data
    // the plug-in checks, read at start and at SIGHUP), taken before
    // `files`, which are read at each use.
    ConfigData(std::map<std::string, std::string> files,
               std::map<std::string, std::string> commands,
               std::map<std::string, std::string> texts = {})
        : files_(std::move(files)), commands_(std::move(commands)), texts_(std::move(texts))
    {
    }

    enum class Status { found, none, failed };
    // `login` goes to a command's environment as TARVEX_USER.  On failure
    // `text` says what went wrong.
    Status get(const std::string &key, const std::string &login, std::string &text) const;

private:
    std::map<std::string, std::string> files_;
    std::map<std::string, std::string> commands_;
    std::map<std::string, std::string> texts_;
};

// The contents of a --config-file file (at most 4 MiB); on failure `text`
// is "PATH: why".
ConfigData::Status read_config_data_file(const std::string &path, std::string &text);

} // namespace tarvex_server
