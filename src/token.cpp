/*
 * The user's Box credential.  The plug-in never talks to an OAuth server:
 * the framework hands over the credential as configuration data ("creds"
 * first, "renew-creds" when the token is close to expiry).
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <utility>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "token"
#include "box_metrics.h"
#include "error.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "token.h"

namespace {

/* A token with this many seconds left or fewer is renewed. */
constexpr time_t tarvex_l_box_token_margin = 99;


__attribute__((format(printf, 2, 3)))
tarvex_result_t internal_error(tarvex_object_t *cause, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_v_construct(
        nullptr, cause, 500, "INTERNAL_ERROR", format, ap);
    va_end(ap);
    return error ? tarvex_error_put(error) : TARVEX_BOX_MALLOC_ERROR();
}

bool token_is_fresh(const tarvex_box_session_t *box)
{
    return time(nullptr) + tarvex_l_box_token_margin < box->access_token_exp;
}

} // namespace

/* "2030-01-01T00:00:00.000000-05:00": the fraction is skipped, the offset
 * hour carries the sign of the whole offset (an hour of 0 counts as
 * positive, so "-00:30" acts like "+00:30"). */
extern "C" tarvex_result_t tarvex_i_box_parse_date(const char *text, time_t *when)
{
    int year, month, day, hour, minute, second, offset_hours, offset_minutes;
    if (text == nullptr ||
        sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d.%*6d%3d:%2d", &year, &month, &day,
               &hour, &minute, &second, &offset_hours, &offset_minutes) != 8)
        return TARVEX_BOX_GENERIC_ERROR("Error parsing time string: %s\n",
                                        text ? text : "");
    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour - offset_hours;
    tm.tm_min = minute - offset_minutes * (offset_hours < 0 ? -1 : 1);
    tm.tm_sec = second;
    *when = timegm(&tm);
    return TARVEX_SUCCESS;
}

/* Nothing is stored unless the whole credential is good. */
static tarvex_result_t tarvex_l_box_parse_token_json(const char *text, char **user_id,
                                                     char **access_token,
                                                     time_t *access_token_exp,
                                                     uint64_t *max_upload)
{
    /* The parser's own text quotes what it read near the fault, which may
     * be the token: only the place is told, in every reply and log line. */
    json_error_t error;
    tarvex_box_json_ptr credential(json_loads(text, 0, &error));
    if (credential.get() == nullptr)
        return TARVEX_BOX_GENERIC_ERROR(
            "Error loading user credential: not JSON (line %d, column %d)\n", error.line,
            error.column);

    const char *token = nullptr;
    const char *expiry = nullptr;
    const char *sub = nullptr;
    json_int_t upload_limit = 0;
    if (json_unpack_ex(credential.get(), &error, 0, "{s:s,s:s,s:s,s:I}", "access_token",
                       &token, "token_expiry", &expiry, "sub", &sub, "max_upload",
                       &upload_limit) != 0)
        return internal_error(nullptr, "GridFTP-Error: Error unpacking user credential: %s\n",
                              error.text);

    time_t expires = 0;
    tarvex_result_t result = tarvex_i_box_parse_date(expiry, &expires);
    if (result != TARVEX_SUCCESS)
        return result;

    tarvex_box_cstr_ptr token_copy(strdup(token));
    tarvex_box_cstr_ptr sub_copy(strdup(sub));
    if (token_copy == nullptr || sub_copy == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_box_field_take(access_token, std::move(token_copy));
    tarvex_box_field_take(user_id, std::move(sub_copy));
    *access_token_exp = expires;
    *max_upload = (uint64_t)upload_limit;
    return TARVEX_SUCCESS;
}

extern "C" tarvex_result_t tarvex_box_get_kelm_token(tarvex_box_session_t *box,
                                                     tarvex_gfs_operation_t op)
{
    TARVEX_BOX_TRACE_ENTER();
    if (box->access_token != nullptr && token_is_fresh(box)) {
        TARVEX_BOX_TRACE_RESULT(TARVEX_SUCCESS);
        return TARVEX_SUCCESS;
    }

    const char *key = "creds";
    if (box->access_token != nullptr) {
        tarvex_box_field_take(&box->access_token, nullptr);
        tarvex_box_field_take(&box->user_id, nullptr);
        key = "renew-creds";
    }

    char *text = nullptr;
    tarvex_result_t result = tarvex_gridftp_server_get_config_data(op, key, &text);
    /* The framework hands over an allocated copy that is ours to free. */
    const tarvex_box_cstr_ptr credential(text);
    /* A credential the framework could not get (a helper that refused, a
     * file it could not read) is its error, "451 Configuration data ...
     * is not available", with the cause in the server's log: reported as
     * a token that came back expired, it would send the operator to the
     * wrong place. */
    if (text == nullptr && result != TARVEX_SUCCESS) {
        TARVEX_BOX_TRACE_RESULT(result);
        return result;
    }
    /* Otherwise only the text counts; an error that came with it is
     * dropped, not leaked. */
    tarvex_error_discard(result);
    /* No credential is not an error here: the caller decides what a
     * session without a token may do. */
    if (text == nullptr) {
        TARVEX_BOX_TRACE_RESULT(TARVEX_SUCCESS);
        return TARVEX_SUCCESS;
    }
    result = tarvex_l_box_parse_token_json(credential.get(), &box->user_id,
                                           &box->access_token, &box->access_token_exp,
                                           &box->max_upload);
    TARVEX_BOX_TRACE_RESULT(result);
    return result;
}

extern "C" tarvex_result_t tarvex_box_token_refresh(tarvex_box_session_t *box,
                                                    tarvex_gfs_operation_t op)
{
    TARVEX_BOX_TRACE_ENTER();
    bool renewing = box->access_token != nullptr && !token_is_fresh(box);
    tarvex_result_t result = tarvex_box_get_kelm_token(box, op);
    if (renewing)
        tarvex_box_metric_renewal(result == TARVEX_SUCCESS && token_is_fresh(box));
    if (result == TARVEX_SUCCESS && !token_is_fresh(box)) {
        tarvex_dsi_rest_key_value_t pairs[3] = {
            {"Box-Details", "Token renewal failed. Newly requested token is expired."},
            {"Box-Details", nullptr},
            {"Box-Path", nullptr},
        };
        tarvex_dsi_rest_key_array_t info = {3, pairs};
        result = internal_error(tarvex_box_error_construct(nullptr, nullptr, &info),
                                "%s", "");
    }
    TARVEX_BOX_TRACE_RESULT(result);
    return result;
}
