// Configuration data handed to the plug-in by key ("config", "creds",
// "renew-creds", ...): the contents of a file the operator named, or the
// standard output of a command (a credential helper) run for the login.
#pragma once

#include <map>
#include <string>

namespace tarvex_server {

class ConfigData {
public:
    ConfigData(std::map<std::string, std::string> files,
               std::map<std::string, std::string> commands)
        : files_(std::move(files)), commands_(std::move(commands))
    {
    }

    enum class Status { found, none, failed };
    // `login` goes to a command's environment as TARVEX_USER.  On failure
    // `text` says what went wrong.
    Status get(const std::string &key, const std::string &login, std::string &text) const;

private:
    std::map<std::string, std::string> files_;
    std::map<std::string, std::string> commands_;
};

} // namespace tarvex_server
