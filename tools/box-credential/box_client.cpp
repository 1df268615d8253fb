#include "box_client.h"

#include <ctype.h>
#include <stdint.h>

#include <jansson.h>

#include "failure.h"
#include "tarvex_box_raii.h"
#include "tarvex_dsi_rest.h"

namespace box_credential {

namespace {

/* A request that sees no byte move for this long is given up. */
constexpr intptr_t idle_timeout_ms = 30000;

/* What one exchange left behind, released on every way out. */
struct exchange {
    tarvex_dsi_rest_response_arg_t response{};
    json_t *json = nullptr;

    exchange() = default;
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;
    ~exchange()
    {
        tarvex_dsi_rest_response_arg_clear(&response);
        json_decref(json);
    }
};

/* The outermost message of a failed request: the REST client's names the
 * failure, the method and the URL without its query. */
std::string take_error_text(tarvex_result_t result)
{
    tarvex_object_t *error = tarvex_error_get(result);
    const char *message = error != nullptr ? tarvex_error_get_message(error) : nullptr;
    std::string text = message != nullptr && message[0] != '\0' ? message : "unknown failure";
    tarvex_object_free(error);
    return text;
}

void perform(const char *method, const std::string &url,
             const std::vector<tarvex_dsi_rest_key_value_t> &query,
             const std::vector<tarvex_dsi_rest_key_value_t> &headers, const std::string *body,
             exchange &x)
{
    tarvex_dsi_rest_key_array_t query_array = {query.size(),
                                               const_cast<tarvex_dsi_rest_key_value_t *>(
                                                   query.data())};
    tarvex_dsi_rest_key_array_t header_array = {headers.size(),
                                                const_cast<tarvex_dsi_rest_key_value_t *>(
                                                    headers.data())};
    tarvex_dsi_rest_write_block_arg_t block = {nullptr, 0};
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &x.response;
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &x.json;
    callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    callbacks.progress_callback_arg = reinterpret_cast<void *>(idle_timeout_ms);
    if (body != nullptr) {
        block = {const_cast<char *>(body->data()), body->size()};
        callbacks.data_write_callback = tarvex_dsi_rest_write_block;
        callbacks.data_write_callback_arg = &block;
    }
    tarvex_result_t result = tarvex_dsi_rest_request(method, url.c_str(), &query_array,
                                                     &header_array, &callbacks);
    if (result != TARVEX_SUCCESS)
        throw failure("request failed: " + take_error_text(result));
}

std::string text_of(json_t *doc, const char *key)
{
    json_t *value = json_object_get(doc, key);
    return json_is_string(value) ? json_string_value(value) : "";
}

/* An OAuth 2.0 error code as Box sends them ("invalid_grant"): a short word
 * of letters, digits, '_', '.' and '-'. */
bool is_error_code(const std::string &text)
{
    if (text.empty() || text.size() > 64)
        return false;
    for (unsigned char c : text)
        if (!isalnum(c) && c != '_' && c != '.' && c != '-')
            return false;
    return true;
}

/* A non-negative integer member, or -1. */
int64_t count_of(json_t *doc, const char *key)
{
    json_t *value = json_object_get(doc, key);
    return json_is_integer(value) && json_integer_value(value) >= 0 ? json_integer_value(value)
                                                                     : -1;
}

} // namespace

std::string form_encode(const form_fields &form)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const auto &[key, value] : form) {
        if (!out.empty())
            out += '&';
        for (const std::string *part : {&key, &value}) {
            for (unsigned char c : *part) {
                if (isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
                    out += static_cast<char>(c);
                } else {
                    out += '%';
                    out += hex[c >> 4];
                    out += hex[c & 15];
                }
            }
            if (part == &key)
                out += '=';
        }
    }
    return out;
}

token_answer request_token(const settings &s, const form_fields &form)
{
    std::string body = form_encode(form);
    exchange x;
    perform("POST", s.token_url, {},
            {{"Content-Type", "application/x-www-form-urlencoded"}, {"Accept", "application/json"}},
            &body, x);
    int code = x.response.response_code;
    std::string error = text_of(x.json, "error");
    if (code >= 400 && code < 500 && !error.empty()) {
        // Only the error's code goes to the log, and only when it reads as
        // one: the description (and anything else the endpoint chose to put
        // there) may echo the refresh token or the secret it was sent.
        if (!is_error_code(error))
            error = "(an error code that is not one)";
        throw grant_refused("the token endpoint refused the grant: " + error, error);
    }
    if (code != 200)
        throw failure("the token endpoint " + s.token_url + " answered HTTP " +
                      std::to_string(code));
    token_answer answer{text_of(x.json, "access_token"), count_of(x.json, "expires_in"),
                        text_of(x.json, "refresh_token")};
    if (answer.access_token.empty() || answer.expires_in <= 0)
        throw failure("the token endpoint " + s.token_url +
                      " answered 200 without an access token and its lifetime");
    return answer;
}

box_user users_me(const settings &s, const std::string &access_token)
{
    std::string url = s.api_base + "/2.0/users/me";
    std::string authorization = "Bearer " + access_token;
    exchange x;
    perform("GET", url, {{"fields", "id,max_upload_size"}},
            {{"Authorization", authorization.c_str()}}, nullptr, x);
    int code = x.response.response_code;
    if (code != 200)
        throw failure("GET " + url + " answered HTTP " + std::to_string(code) +
                      (code == 401 ? " (the new access token was refused)" : ""));
    box_user user{text_of(x.json, "id"), count_of(x.json, "max_upload_size")};
    if (user.id.empty() || user.max_upload < 0)
        throw failure("GET " + url + " answered without the user's id and max_upload_size");
    return user;
}

} // namespace box_credential
