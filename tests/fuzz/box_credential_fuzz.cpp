/*
 * The user's credential as the framework hands it over ("creds", and
 * "renew-creds" for an expiring token), with its expiry date; the date
 * parser also takes the whole input on its own.
 */
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "tarvex_box_common.h"
#include "token.h"

using namespace tarvex_fuzz;

namespace {

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    activate_runtime();
    check(operation() != nullptr, "no operation");
    credential = c_text(data, size);

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

    check_error_table_empty();
    return 0;
}
