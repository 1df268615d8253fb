/*
 * The texts the Box plug-in is configured with.
 *
 * The storage gateway policy (the API rate and the two Box origins), and
 * the rule that decides which URLs may carry the user's bearer token: any
 * https URL, plain http only to a loopback host.  The rule is checked
 * against where libcurl itself would connect, on the origins a policy sets
 * and on the whole input taken as a URL (Box's redirects go through the
 * same rule).
 *
 * The user's credential as the framework hands it over ("creds", and
 * "renew-creds" for an expiring token), with its expiry date; the date
 * parser also takes the whole input on its own.
 *
 * Input: the text, up to a NUL byte, taken as each of these.
 */
#include <arpa/inet.h>
#include <curl/curl.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "config.h"
#include "fuzz_support.h"
#include "tarvex_box_common.h"
#include "token.h"

using namespace tarvex_fuzz;

namespace {

std::string curl_part(CURLU *url, CURLUPart part)
{
    char *value = nullptr;
    if (curl_url_get(url, part, &value, 0) != CURLUE_OK || value == nullptr)
        return "";
    std::string text = value;
    curl_free(value);
    return text;
}

bool loopback(const std::string &host)
{
    struct in_addr address;
    return strcasecmp(host.c_str(), "localhost") == 0 || host == "[::1]" ||
           (inet_pton(AF_INET, host.c_str(), &address) == 1 &&
            (ntohl(address.s_addr) >> 24) == 127);
}

/* A URL the rule lets the token go to must, as libcurl reads it, be
 * https, or http to a loopback host, or no URL libcurl would send at all. */
void check_token_rule(const char *text)
{
    if (!tarvex_box_url_may_carry_token(text))
        return;
    CURLU *url = curl_url();
    check(url != nullptr, "out of memory");
    if (curl_url_set(url, CURLUPART_URL, text, 0) == CURLUE_OK) {
        std::string scheme = curl_part(url, CURLUPART_SCHEME);
        std::string host = curl_part(url, CURLUPART_HOST);
        check(strcasecmp(scheme.c_str(), "https") == 0 ||
                  (strcasecmp(scheme.c_str(), "http") == 0 && loopback(host)),
              "the bearer token would go in the clear to", scheme + "://" + host);
    }
    curl_url_cleanup(url);
}

/* The text the operation hands out for any key, as an allocated copy. */
std::string credential;

tarvex_result_t config_data(void *, const char *, char **data)
{
    *data = strdup(credential.c_str());
    return *data != nullptr ? TARVEX_SUCCESS : TARVEX_FAILURE;
}

tarvex_gfs_operation_t operation()
{
    static tarvex_gfs_operation_provider_t provider = [] {
        tarvex_gfs_operation_provider_t p = {};
        p.get_config_data = config_data;
        return p;
    }();
    static tarvex_gfs_operation_t op = tarvex_gfs_operation_create(&provider, nullptr);
    return op;
}

void clear(tarvex_box_session_t &box)
{
    free(box.access_token);
    free(box.user_id);
    box.access_token = box.user_id = nullptr;
}

/* After a renewal: the session holds a whole credential or none. */
void check_session(const tarvex_box_session_t &box, tarvex_result_t result)
{
    if (result != TARVEX_SUCCESS)
        check(box.access_token == nullptr && box.user_id == nullptr,
              "a failed credential left part of itself in the session");
    else
        check((box.access_token == nullptr) == (box.user_id == nullptr),
              "a credential with a token but no user id, or the reverse");
}

/* The policy, and the token rule on the input and on the origins it sets. */
void policy(const std::string &text)
{
    check_token_rule(text.c_str());

    // The origins are process-wide: each input starts from the defaults, so
    // that an input's outcome does not hang on the one before it.
    tarvex_box_set_bases("https://api.box.com", "https://upload.box.com");
    int rate = 16;
    tarvex_result_t result = tarvex_box_config_parse_json(text.c_str(), &rate);
    if (result == TARVEX_SUCCESS) {
        // Requests go to the origin followed by a path.
        check_token_rule((std::string(tarvex_box_api_base()) + "/2.0/folders/0").c_str());
        check_token_rule(
            (std::string(tarvex_box_upload_base()) + "/api/2.0/files/content").c_str());
    }
    release(result);
}

void credential_and_date()
{
    time_t when = 0;
    release(tarvex_i_box_parse_date(credential.c_str(), &when));

    // The first credential of a session ...
    tarvex_box_session_t box = {};
    tarvex_result_t result = tarvex_box_get_kelm_token(&box, operation());
    check_session(box, result);
    release(result);
    clear(box);

    // ... and the renewal of an expired one, through the refresh every
    // operation starts with.
    box.access_token = strdup("expired");
    box.user_id = strdup("1");
    box.access_token_exp = 0;
    result = tarvex_box_token_refresh(&box, operation());
    if (result == TARVEX_SUCCESS)
        check(box.access_token != nullptr && box.access_token_exp > time(nullptr),
              "a refresh that succeeded without a fresh token");
    release(result);
    clear(box);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    check(operation() != nullptr, "no operation");
    // As the C string a parser is handed: what follows a NUL never reaches it.
    std::string_view text = as_text(data, size);
    credential = text.substr(0, text.find('\0'));
    policy(credential);
    credential_and_date();
    check_error_table_empty();
    return 0;
}
