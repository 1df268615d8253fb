#include "credential.h"

#include <time.h>

#include <algorithm>

#include <jansson.h>

#include "box_client.h"
#include "failure.h"
#include "tarvex_box_raii.h"

namespace box_credential {

namespace {

/* Box's tokens last about an hour; a lifetime beyond this is taken as
 * this, so that no answer can push the expiry past what a date holds. */
constexpr int64_t longest_lifetime = int64_t{30} * 24 * 3600;

int64_t now()
{
    return static_cast<int64_t>(time(nullptr));
}

/* 2030-01-01T00:00:00.000000+00:00: the plug-in's form, with the fraction
 * and the numeric offset it requires. */
std::string expiry_text(int64_t expires_at)
{
    time_t t = static_cast<time_t>(expires_at);
    struct tm tm;
    char text[64];
    if (gmtime_r(&t, &tm) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000000+00:00", &tm) == 0)
        throw failure("cannot write the expiry " + std::to_string(expires_at));
    return text;
}

bool usable(const credential &c, call kind, int64_t at)
{
    if (c.access_token.empty() || c.sub.empty() || c.max_upload < 0 ||
        c.expires_at - at <= handout_margin)
        return false;
    return kind == call::credential || at - c.obtained_at < just_renewed;
}

form_fields grant_form(const credential &c)
{
    if (c.grant == refresh_grant)
        return {{"grant_type", refresh_grant},
                {"refresh_token", c.refresh_token},
                {"client_id", c.client_id},
                {"client_secret", c.client_secret}};
    return {{"grant_type", client_credentials_grant},
            {"client_id", c.client_id},
            {"client_secret", c.client_secret},
            {"box_subject_type", "user"},
            {"box_subject_id", c.box_user_id}};
}

/* One grant, under the user's lock.  A rotated refresh token is stored
 * before anything else happens: the one sent is spent now, and losing the
 * new one would lose the user's credential.  Without a rotation nothing
 * is stored before users/me has confirmed whom the token is for. */
void renew(const settings &s, const credential_store &store, credential &c)
{
    int64_t asked = now();
    token_answer answer;
    try {
        answer = request_token(s, grant_form(c));
    } catch (const grant_refused &e) {
        if (e.error != "invalid_grant")
            throw;
        throw failure(std::string(e.what()) +
                      (c.grant == refresh_grant
                           ? "; the refresh token is spent or revoked: enrol the user with a "
                             "new one"
                           : "; Box does not let this client act as user " + c.box_user_id));
    }
    c.access_token = answer.access_token;
    c.expires_at = asked + std::min(answer.expires_in, longest_lifetime);
    c.obtained_at = asked;
    if (!answer.refresh_token.empty() && answer.refresh_token != c.refresh_token) {
        c.refresh_token = answer.refresh_token;
        store.write(c);
    }

    box_user user = users_me(s, c.access_token);
    if (c.grant == client_credentials_grant && user.id != c.box_user_id)
        throw failure("Box issued a token for user " + user.id + " instead of " + c.box_user_id);
    c.sub = user.id;
    c.max_upload = user.max_upload;
    store.write(c);
}

/* Where this credential's grants go: the endpoints given on this command
 * line, else those its enrolment was given, else the settings'. */
settings endpoints_for(settings s, const credential &c)
{
    if (!s.token_url_given && !c.token_url.empty()) {
        check_endpoint("token URL", c.token_url);
        s.token_url = c.token_url;
    }
    if (!s.api_base_given && !c.api_base.empty()) {
        check_endpoint("API base", c.api_base);
        s.api_base = c.api_base;
    }
    return s;
}

} // namespace

std::string plugin_credential(const credential &c)
{
    tarvex_box_json_ptr doc(json_pack("{s:s,s:s,s:s,s:I}", "access_token",
                                      c.access_token.c_str(), "token_expiry",
                                      expiry_text(c.expires_at).c_str(), "sub", c.sub.c_str(),
                                      "max_upload", static_cast<json_int_t>(c.max_upload)));
    tarvex_box_cstr_ptr text(doc ? json_dumps(doc.get(), JSON_COMPACT) : nullptr);
    if (!text)
        throw std::bad_alloc();
    return std::string(text.get()) + "\n";
}

std::string obtain(const settings &s, const credential_store &store, call kind)
{
    // The file is only ever replaced whole: a look without the lock is safe.
    credential c = store.read();
    if (usable(c, kind, now()))
        return plugin_credential(c);
    unique_fd lock = store.lock();
    // Another process may have renewed while this one waited for the lock.
    c = store.read();
    if (!usable(c, kind, now()))
        renew(endpoints_for(s, c), store, c);
    return plugin_credential(c);
}

std::string enrol(const settings &s, const credential_store &store, credential c)
{
    unique_fd lock = store.lock();
    // Later renewals (the server's, without these options) go where the
    // refresh token was issued.
    if (s.token_url_given)
        c.token_url = s.token_url;
    if (s.api_base_given)
        c.api_base = s.api_base;
    renew(s, store, c);
    return "enrolled " + store.user() + ": Box user " + c.sub + " through the " + c.grant +
           " grant; token valid until " + expiry_text(c.expires_at) + "\n";
}

} // namespace box_credential
