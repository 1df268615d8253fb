/*
 * The policy's check before any login: the server runs it at its start,
 * at --check-config and at SIGHUP, so that a policy a session would refuse
 * stops the server (or the reload) with its place named, instead of
 * failing every login.  The policy goes through the very parser session
 * start uses (config.cpp): what passes here is what a session takes.  This
 * file adds only where the fault lies.
 */
#include <stdio.h>
#include <string.h>

#include <string>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "config_check"
#include "config.h"
#include "config_check.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

namespace {

/* The bases as they were before the check: each parse starts from them,
 * as a session's does, and the check leaves them so. */
struct saved_bases {
    std::string api = tarvex_box_api_base();
    std::string upload = tarvex_box_upload_base();
    void restore() const { tarvex_box_set_bases(api.c_str(), upload.c_str()); }
    ~saved_bases() { restore(); }
};

/* The session parser's verdict on `text`.  It sets the process's bases
 * and pacing store as it goes (the rate is a copy here); `bases` puts the
 * bases back first, so that no policy checked before weighs on this one. */
tarvex_result_t parse(const char *text, const saved_bases &bases)
{
    bases.restore();
    int rate = tarvex_i_box_api_per_second;
    return tarvex_box_config_parse_json(text, &rate);
}

/* The message of the outermost error, without the reply's prefix and the
 * line break the session's messages end with; `result` is released. */
std::string message_of(tarvex_result_t result)
{
    const tarvex_object_t *error = tarvex_error_peek(result);
    const char *text = error != nullptr ? tarvex_gfs_ftp_response_error_get_message(error) : nullptr;
    if (text == nullptr && error != nullptr)
        text = tarvex_error_get_message(error);
    std::string message = text != nullptr ? text : "not a usable policy";
    tarvex_error_discard(result);
    const std::string prefix = "GridFTP-Error: ";
    if (message.compare(0, prefix.size(), prefix) == 0)
        message.erase(0, prefix.size());
    while (!message.empty() && (message.back() == '\n' || message.back() == '.'))
        message.pop_back();
    return message;
}

/* The line (from 1) where the policy object's own member `key` is named,
 * 0 when it is not: strings are compared as written (the key as JSON
 * writes it, so escapes match), and only at the object's own depth. */
int line_of_key(const char *text, const char *key)
{
    tarvex_box_json_ptr name(json_string(key));
    tarvex_box_cstr_ptr quoted(name ? json_dumps(name.get(), JSON_ENCODE_ANY) : nullptr);
    if (!quoted)
        return 0;
    const std::string want = quoted.get();
    const std::string all = text;
    int line = 1;
    int depth = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        char c = all[i];
        if (c == '\n')
            ++line;
        else if (c == '{' || c == '[')
            ++depth;
        else if (c == '}' || c == ']')
            --depth;
        if (c != '"')
            continue;
        size_t end = i + 1;
        while (end < all.size() && all[end] != '"')
            end += all[end] == '\\' ? 2 : 1;
        size_t after = all.find_first_not_of(" \t\r\n", end + 1);
        if (depth == 1 && after != std::string::npos && all[after] == ':' &&
            all.compare(i, end + 1 - i, want) == 0)
            return line;
        i = end;
    }
    return 0;
}

/* The first key whose value alone the parser refuses; it fills `place`.
 * None when only keys taken together are refused. */
void find_key(json_t *policy, const char *text, const saved_bases &bases,
              tarvex_gfs_config_place_t *place)
{
    const char *key;
    json_t *value;
    json_object_foreach(policy, key, value) {
        tarvex_box_json_ptr alone(json_pack("{sO}", key, value));
        tarvex_box_cstr_ptr alone_text(alone ? json_dumps(alone.get(), 0) : nullptr);
        if (!alone_text)
            return;
        tarvex_result_t result = parse(alone_text.get(), bases);
        if (result == TARVEX_SUCCESS)
            continue;
        tarvex_error_discard(result);
        snprintf(place->key, sizeof place->key, "%s", key);
        place->line = line_of_key(text, key);
        return;
    }
}

tarvex_result_t check_policy(const char *text, tarvex_gfs_config_place_t *place)
{
    const saved_bases bases;
    tarvex_result_t result = parse(text, bases);
    if (result == TARVEX_SUCCESS)
        return result;
    std::string message = message_of(result);
    json_error_t error;
    tarvex_box_json_ptr policy(json_loads(text, 0, &error));
    if (!policy) {
        place->line = error.line;
        place->column = error.column;
    } else if (json_is_object(policy.get())) {
        find_key(policy.get(), text, bases, place);
    }
    return TARVEX_BOX_GENERIC_ERROR("%s", message.c_str());
}

tarvex_result_t check_policy_c(const char *text, tarvex_gfs_config_place_t *place) noexcept
{
    if (text == nullptr || place == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No policy to check");
    return tarvex_box_guarded([&] { return check_policy(text, place); });
}

} // namespace

extern "C" const tarvex_gfs_config_checker_t tarvex_i_box_config_checker = {"config",
                                                                             check_policy_c};
