/*
 * The two Box requests the credential helper makes, through the REST
 * client (TLS verified; TARVEX_DSI_REST_CA_FILE names a test CA): a token
 * request to the OAuth 2.0 token endpoint and "users/me".  Neither is ever
 * repeated by itself: Box spends a refresh token when it receives it, so a
 * second attempt after a lost answer would only be refused.
 */
#ifndef TARVEX_BOX_CREDENTIAL_BOX_CLIENT_H
#define TARVEX_BOX_CREDENTIAL_BOX_CLIENT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "settings.h"

namespace box_credential {

using form_fields = std::vector<std::pair<std::string, std::string>>;

struct token_answer {
    std::string access_token;
    int64_t expires_in = 0;     // seconds
    std::string refresh_token;  // "" when the endpoint issued none
};

/* POSTs the form to the token endpoint.  Throws grant_refused when the
 * endpoint answers an OAuth 2.0 error, failure for anything else that is
 * not a usable token. */
token_answer request_token(const settings &s, const form_fields &form);

struct box_user {
    std::string id;
    int64_t max_upload = 0;     // bytes
};

/* GET users/me with the token: the user's id and upload limit. */
box_user users_me(const settings &s, const std::string &access_token);

/* "a=1&b=x%20y": the form body of a token request. */
std::string form_encode(const form_fields &form);

} // namespace box_credential

#endif
