/*
 * Where the credential helper keeps its state and which Box endpoints it
 * talks to: built-in defaults, then the settings file, then the command
 * line.
 */
#ifndef TARVEX_BOX_CREDENTIAL_SETTINGS_H
#define TARVEX_BOX_CREDENTIAL_SETTINGS_H

#include <optional>
#include <string>

namespace box_credential {

struct settings {
    std::string state_dir = "/var/lib/tarvex/box";
    std::string token_url = "https://api.box.com/oauth2/token";
    std::string api_base = "https://api.box.com";
    /* Given on the command line: an enrolment keeps them for the user. */
    bool token_url_given = false;
    bool api_base_given = false;
};

/* The settings file read when no --config is given, if it exists. */
inline constexpr const char *default_settings_file = "/etc/tarvex/box-credential.json";

/* Values given on the command line; each one overrides the file's. */
struct settings_overrides {
    std::optional<std::string> config_file;
    std::optional<std::string> state_dir;
    std::optional<std::string> token_url;
    std::optional<std::string> api_base;
};

/* The settings in force; throws failure for an unreadable or malformed
 * settings file, an unknown key, or an endpoint that would carry secrets
 * in the clear across a network. */
settings load_settings(const settings_overrides &given);

/* Throws failure when `url` may not carry credentials (https, or plain
 * http to a loopback address); `what` names it in the message. */
void check_endpoint(const char *what, const std::string &url);

} // namespace box_credential

#endif
