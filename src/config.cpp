/*
 * The storage gateway policy and the plug-in's process-wide settings.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <mutex>
#include <string>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "config"
#include "config.h"
#include "pacing.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "tarvex_result.h"

extern "C" {

int tarvex_i_box_api_per_second = 16;
int tarvex_i_box_upload_per_second = 4;
int tarvex_i_box_max_delay = 25;
int tarvex_i_box_max_retries = 3;
int tarvex_i_box_progress_timeout_ms = 30000;
int tarvex_i_box_chunked_minimum = 52428800;
const char *tarvex_i_box_retry_path = "$HOME/.tarvex/box-r";
const char *tarvex_i_box_upload_path = "$HOME/.tarvex/box-u";
bool tarvex_i_box_rename_replaces = false;
tarvex_box_replace_t tarvex_i_box_replace = TARVEX_BOX_REPLACE_DELETE_FIRST;
int tarvex_i_box_upload_parts_in_flight = 1;
int tarvex_i_box_download_streams = 1;
int tarvex_i_box_list_page_size = 300;

} // extern "C"

namespace {

/* The two origins.  They are set at session start, before any request,
 * and one server process serves one session; the lock only keeps a
 * concurrent set from tearing a string. */
struct bases {
    std::mutex lock;
    std::string api;
    std::string upload;
    bool loaded = false;
};

bases &the_bases()
{
    static bases instance;
    return instance;
}

std::string origin(const char *text)
{
    std::string value = text;
    while (!value.empty() && value.back() == '/')
        value.pop_back();
    return value;
}

std::string from_environment(const char *variable, const char *fallback)
{
    const char *value = getenv(variable);
    return origin(value != nullptr && value[0] != '\0' ? value : fallback);
}

/* Defaults first, then the environment; callers hold the lock. */
void load_defaults(bases &b)
{
    if (b.loaded)
        return;
    b.api = from_environment("TARVEX_BOX_API_BASE", "https://api.box.com");
    b.upload = from_environment("TARVEX_BOX_UPLOAD_BASE", "https://upload.box.com");
    b.loaded = true;
}

/* One of the bases, for the C getters.  Out of memory before the defaults
 * were read it is "": no request goes to it (the token's URL rule refuses
 * it). */
const char *base_text(std::string bases::*which) noexcept
{
    try {
        bases &b = the_bases();
        std::lock_guard<std::mutex> guard(b.lock);
        load_defaults(b);
        return (b.*which).c_str();
    } catch (...) {
        return "";
    }
}

} // namespace

extern "C" const char *tarvex_box_api_base(void)
{
    return base_text(&bases::api);
}

extern "C" const char *tarvex_box_upload_base(void)
{
    return base_text(&bases::upload);
}

/* A null or empty value leaves that base as it is.  Pointers returned
 * earlier by the getters are invalid afterwards. */
extern "C" void tarvex_box_set_bases(const char *api_base, const char *upload_base)
{
    bases &b = the_bases();
    try {
        std::lock_guard<std::mutex> guard(b.lock);
        load_defaults(b);
        if (api_base != nullptr && api_base[0] != '\0')
            b.api = origin(api_base);
        if (upload_base != nullptr && upload_base[0] != '\0')
            b.upload = origin(upload_base);
    } catch (...) {
        /* Out of memory: no base rather than one the policy did not name.
         * Session start refuses "" as it refuses any base that could not
         * carry the token. */
        std::lock_guard<std::mutex> guard(b.lock);
        b.api.clear();
        b.upload.clear();
        b.loaded = true;
    }
}

namespace {

/* The host of an http URL: what lies between the scheme and the path,
 * port and brackets kept.  Empty when the URL names a user. */
std::string http_host(const char *url)
{
    std::string rest = url + strlen("http://");
    std::string authority = rest.substr(0, rest.find_first_of("/?#"));
    if (authority.find('@') != std::string::npos)
        return "";
    if (!authority.empty() && authority[0] == '[')
        return authority.substr(0, authority.find(']') + 1);
    return authority.substr(0, authority.find(':'));
}

bool is_loopback_host(const std::string &host)
{
    if (strcasecmp(host.c_str(), "localhost") == 0 || host == "[::1]")
        return true;
    struct in_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 &&
           (ntohl(address.s_addr) >> 24) == 127;
}

tarvex_result_t refuse_base(const char *base)
{
    tarvex_object_t *object = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "INTERNAL_ERROR",
        "GridFTP-Error: Box base URL %s refused: the credential goes only over https, or "
        "plain http to a loopback address.",
        base);
    return object ? tarvex_error_put(object) : TARVEX_BOX_MALLOC_ERROR();
}

/* 500 naming a key of our own that the policy got wrong, and what it must
 * be instead. */
tarvex_result_t bad_key(const char *key, const char *must_be)
{
    tarvex_object_t *object = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "INTERNAL_ERROR",
        "GridFTP-Error: Bad \"%s\" in collection storage policy: it must be %s.", key,
        must_be);
    return object ? tarvex_error_put(object) : TARVEX_BOX_MALLOC_ERROR();
}

/*
 * The shared pacing store ("pacing_store", our own key; absent or null for
 * none).  Unlike an unreachable store, which sessions ride out on their
 * host's files, a value that names no store is the policy's mistake: it
 * stops the session here, where the operator sees it at the first log-in,
 * instead of letting every host pace alone at its own full rate.
 */
tarvex_result_t read_pacing_store(json_t *policy)
{
    json_t *value = json_object_get(policy, "pacing_store");
    const char *url = json_string_value(value); /* null for none, or not a string */
    std::string why = "it must be a string such as \"redis://127.0.0.1:6379/0\"";
    try {
        if (tarvex_box_pacing_store_configure(url, &why) &&
            (url != nullptr || value == nullptr || json_is_null(value)))
            return TARVEX_SUCCESS;
    } catch (...) {
        return TARVEX_BOX_MALLOC_ERROR();
    }
    tarvex_object_t *object = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "INTERNAL_ERROR",
        "GridFTP-Error: Bad \"pacing_store\" in collection storage policy: %s.",
        why.c_str());
    return object ? tarvex_error_put(object) : TARVEX_BOX_MALLOC_ERROR();
}

/*
 * "rename_replaces" (our own key): true lets RNTO replace an existing file
 * (command.cpp).  Absent or null is false, as a policy without it has
 * always behaved; any other value than a boolean stops the session, so
 * that a quoted "true" does not quietly leave renames refusing.
 */
tarvex_result_t read_rename_replaces(json_t *policy)
{
    json_t *value = json_object_get(policy, "rename_replaces");
    tarvex_i_box_rename_replaces = json_is_true(value);
    if (value == nullptr || json_is_null(value) || json_is_boolean(value))
        return TARVEX_SUCCESS;
    return bad_key("rename_replaces", "true or false");
}

/*
 * How a store replaces a file of the same name ("replace", our own key):
 * "delete-first" (absent or null: the way it has always been) or
 * "new-version".  Set on every parse, so that no session keeps what an
 * earlier policy said.  Any other value stops the session: an operator who
 * asked for the safer way must not get the other unawares.
 */
tarvex_result_t read_replace(json_t *policy)
{
    json_t *value = json_object_get(policy, "replace");
    const char *text = json_string_value(value);
    tarvex_i_box_replace = TARVEX_BOX_REPLACE_DELETE_FIRST;
    if (value == nullptr || json_is_null(value) ||
        (text != nullptr && strcmp(text, "delete-first") == 0))
        return TARVEX_SUCCESS;
    if (text != nullptr && strcmp(text, "new-version") == 0) {
        tarvex_i_box_replace = TARVEX_BOX_REPLACE_NEW_VERSION;
        return TARVEX_SUCCESS;
    }
    return bad_key("replace", "\"delete-first\" or \"new-version\"");
}

/*
 * A whole number of our own in [low, high] under `key`; absent or null is
 * `fallback`, which is also what the setting holds after a refusal.  Set
 * on every parse, so that no session keeps what an earlier policy said.
 * Out of range or of another type (a quoted number, 2.5, true) stops the
 * session: an operator who asked for more must not get the default
 * unawares.
 */
tarvex_result_t read_count(json_t *policy, const char *key, int low, int high, int fallback,
                           int *setting)
{
    json_t *value = json_object_get(policy, key);
    *setting = fallback;
    if (value == nullptr || json_is_null(value))
        return TARVEX_SUCCESS;
    json_int_t number = json_is_integer(value) ? json_integer_value(value) : low - 1;
    if (number >= low && number <= high) {
        *setting = static_cast<int>(number);
        return TARVEX_SUCCESS;
    }
    std::string what = "a whole number from " + std::to_string(low) + " to " +
                       std::to_string(high);
    return bad_key(key, what.c_str());
}

/* How many parts of an upload session go to Box at once (upload_parts.h). */
tarvex_result_t read_upload_parts_in_flight(json_t *policy)
{
    return read_count(policy, "upload_parts_in_flight", 1, 8, 1,
                      &tarvex_i_box_upload_parts_in_flight);
}

/* How many ranges of a large download come from Box at once
 * (download_ranges.h). */
tarvex_result_t read_download_streams(json_t *policy)
{
    return read_count(policy, "download_streams", 1, 8, 1, &tarvex_i_box_download_streams);
}

/* The "limit" of a folder listing's pages; Box allows up to 1000. */
tarvex_result_t read_list_page_size(json_t *policy)
{
    return read_count(policy, "list_page_size", 100, 1000, 300, &tarvex_i_box_list_page_size);
}

} // namespace

extern "C" bool tarvex_box_url_may_carry_token(const char *url)
{
    if (url == nullptr)
        return false;
    if (strncasecmp(url, "https://", strlen("https://")) == 0)
        return url[strlen("https://")] != '\0';
    if (strncasecmp(url, "http://", strlen("http://")) != 0)
        return false;
    try {
        return is_loopback_host(http_host(url));
    } catch (...) {
        return false;
    }
}

namespace {

/*
 * A policy that is not JSON is a generic error while a key of the wrong
 * type is an FTP 500: the two are told apart on purpose.  A rate of 0 (or
 * none) keeps the current one.
 */
tarvex_result_t parse_policy(const char *text, int *rate)
{
    json_error_t error;
    tarvex_box_json_ptr policy(json_loads(text, 0, &error));
    if (policy.get() == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("Error loading collection storage policy: %s\n",
                                        error.text);

    int per_second = 0;
    if (json_unpack_ex(policy.get(), &error, 0, "{s?i}", "user_api_rate_limit",
                       &per_second) != 0) {
        tarvex_object_t *object = tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 500, "INTERNAL_ERROR",
            "GridFTP-Error: Error unpacking collection storage policy: %s\n",
            error.text);
        return object ? tarvex_error_put(object) : TARVEX_BOX_MALLOC_ERROR();
    }
    if (per_second != 0)
        *rate = per_second;
    /* The bases are our own addition to the policy: only the rate may make
     * it fail, so a base that is not a string is ignored like any other
     * key the plug-in does not know. */
    tarvex_box_set_bases(json_string_value(json_object_get(policy.get(), "box_api_base")),
                         json_string_value(json_object_get(policy.get(), "box_upload_base")));
    /* The bearer token goes with every request: a base that would send it
     * in the clear across a network stops the session here, before any. */
    tarvex::Result first;
    for (const char *base : {tarvex_box_api_base(), tarvex_box_upload_base()})
        if (first.ok() && !tarvex_box_url_may_carry_token(base))
            first = tarvex::Result(refuse_base(base));
    /* Every key of our own is read whatever came before, so that no setting
     * of an earlier policy outlives this one; the first failure is the
     * answer. "session_cache" and "cache_ttl_seconds" are read by the
     * shared cache's own parser (session_journal.h). */
    for (tarvex_result_t (*read)(json_t *) :
         {read_pacing_store, read_rename_replaces, read_replace, read_upload_parts_in_flight,
          read_download_streams, read_list_page_size, tarvex_box_cache_policy_parse}) {
        tarvex::Result next(read(policy.get()));
        if (first.ok())
            first = std::move(next);
    }
    return first.release();
}

} // namespace

extern "C" tarvex_result_t tarvex_box_config_parse_json(const char *text, int *rate)
{
    return TARVEX_BOX_TRACED(parse_policy(text, rate));
}
