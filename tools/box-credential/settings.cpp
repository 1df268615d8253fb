/*
 * The settings file is a JSON object with any of "state_dir", "token_url"
 * and "api_base".  Unknown keys are refused: a misspelt "token_url" would
 * otherwise send the credential to Box's default endpoint unnoticed.
 */
#include "settings.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <jansson.h>

#include "config.h"
#include "failure.h"
#include "tarvex_box_raii.h"

namespace box_credential {

namespace {

void read_settings_file(const std::string &path, bool must_exist, settings &out)
{
    if (!must_exist && access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return;
    json_error_t error;
    tarvex_box_json_ptr doc(json_load_file(path.c_str(), 0, &error));
    if (!doc)
        throw failure("settings file " + path + ": " + error.text);
    if (!json_is_object(doc.get()))
        throw failure("settings file " + path + ": not a JSON object");
    const char *key;
    json_t *value;
    json_object_foreach(doc.get(), key, value) {
        std::string *field = strcmp(key, "state_dir") == 0   ? &out.state_dir
                             : strcmp(key, "token_url") == 0 ? &out.token_url
                             : strcmp(key, "api_base") == 0  ? &out.api_base
                                                             : nullptr;
        if (field == nullptr)
            throw failure("settings file " + path + ": unknown key \"" + key +
                          "\" (known: state_dir, token_url, api_base)");
        if (!json_is_string(value) || json_string_length(value) == 0)
            throw failure("settings file " + path + ": \"" + key +
                          "\" must be a non-empty string");
        *field = json_string_value(value);
    }
}

} // namespace

/* The client secret, refresh tokens and access tokens go to these URLs:
 * the same rule as the plug-in's for its bearer token. */
void check_endpoint(const char *what, const std::string &url)
{
    if (!tarvex_box_url_may_carry_token(url.c_str()))
        throw failure(std::string(what) + " " + url +
                      " refused: credentials go only over https, or plain http to a "
                      "loopback address");
}

settings load_settings(const settings_overrides &given)
{
    settings out;
    read_settings_file(given.config_file.value_or(default_settings_file),
                       given.config_file.has_value(), out);
    if (given.state_dir)
        out.state_dir = *given.state_dir;
    if (given.token_url)
        out.token_url = *given.token_url;
    if (given.api_base)
        out.api_base = *given.api_base;
    out.token_url_given = given.token_url.has_value();
    out.api_base_given = given.api_base.has_value();
    while (out.api_base.size() > 1 && out.api_base.back() == '/')
        out.api_base.pop_back();
    if (out.state_dir.empty() || out.state_dir[0] != '/')
        throw failure("state directory \"" + out.state_dir + "\" must be an absolute path");
    check_endpoint("token URL", out.token_url);
    check_endpoint("API base", out.api_base);
    return out;
}

} // namespace box_credential
