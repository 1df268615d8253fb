/*
 * Turns a Box answer of status 400 or more into the result to report, plus
 * the two retry hints: may the call be repeated, and how long Box asked us
 * to wait.  With an error body the decision follows Box's "code"; without
 * one it follows the HTTP status.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "translate_response"
#include "error.h"
#include "tarvex_box_common.h"
#include "translate_response.h"

namespace {

/* The message of a null name as the C library would print it, without
 * handing a null pointer to a printf. */
const char *or_null_text(const char *text)
{
    return text ? text : "(null)";
}

tarvex_result_t put(tarvex_object_t *error)
{
    if (error == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    return tarvex_error_put(error);
}

/* "name" of context_info.errors[0], or null. */
const char *first_error_name(json_t *context_info)
{
    json_t *errors = json_object_get(context_info, "errors");
    json_t *first = json_is_array(errors) ? json_array_get(errors, 0) : nullptr;
    return json_string_value(json_object_get(first, "name"));
}

/* "name" of context_info.conflicts: an object, or as Box's published API
 * describes it a list, whose first element is taken. */
const char *conflict_name(json_t *context_info)
{
    json_t *conflicts = json_object_get(context_info, "conflicts");
    if (json_is_array(conflicts))
        conflicts = json_array_get(conflicts, 0);
    return json_string_value(json_object_get(conflicts, "name"));
}

/*
 * An empty string carries nothing and would not print in the box error's
 * reply lines (its printable form refuses present but empty values), so
 * such members are taken as absent.
 */
const char *unpack_string(json_t *json, const char *key)
{
    const char *value = nullptr;
    if (json_unpack(json, "{s:s}", key, &value) != 0)
        return nullptr;
    return (value != nullptr && value[0] != '\0') ? value : nullptr;
}

tarvex_result_t translate_body(json_t *json)
{
    static const char *const keys[4] = {"code", "request_id", "message", "help_url"};
    tarvex_dsi_rest_key_value_t pairs[4] = {};
    for (int i = 0; i < 4; i++) {
        const char *value = unpack_string(json, keys[i]);
        if (value != nullptr)
            pairs[i] = {keys[i], value};
    }
    tarvex_dsi_rest_key_array_t info = {4, pairs};
    tarvex_object_t *box_error = tarvex_box_error_construct(nullptr, nullptr, &info);
    json_t *context_info = json_object_get(json, "context_info");
    const char *code = pairs[0].value;

    if (code == nullptr) {
        tarvex_object_free(box_error);
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 500, "INTERNAL_ERROR", "%s%s", "", ""));
    }
    if (strcmp(code, "item_name_in_use") == 0)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 553, "PATH_EXISTS", "GridFTP-Path: %s",
            or_null_text(conflict_name(context_info))));
    if (strcmp(code, "not_found") == 0) {
        const char *name = first_error_name(context_info);
        if (name != nullptr)
            return put(tarvex_gfs_ftp_response_error_construct(
                nullptr, box_error, 550, "PATH_NOT_FOUND", "%s%s%s",
                "GridFTP-Path: \"", name, "\""));
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 550, "PATH_NOT_FOUND", "%s%s%s", "", "", ""));
    }
    if (strcmp(code, "trashed") == 0)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 550, "PATH_NOT_FOUND", "%s%s%s",
            "GridFTP-Path: \"", "<Trashed Item>", "\""));
    if (strcmp(code, "item_name_invalid") == 0 ||
        strcmp(code, "item_name_too_long") == 0)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 553, "INVALID_PATH_NAME", "GridFTP-Path: %s",
            "<Invalid Name>"));
    if (strcmp(code, "access_denied_insufficient_permissions") == 0)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 550, "PERMISSION_DENIED", nullptr));
    /* The words themselves, not checksum values: Box's answer names
     * neither digest. */
    if (strcmp(code, "bad_digest") == 0)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, box_error, 550, "INCORRECT_CHECKSUM",
            "GridFTP-Computed-Checksum: %s\nGridFTP-Expected-Checksum: %s",
            "computed", "expected"));
    return put(box_error);
}

/* Without a body only the status speaks.  Unlisted 4xx statuses count as
 * success on purpose: the caller then takes the answer as it is. */
tarvex_result_t translate_status(int status, bool *retry)
{
    if (status < 400) {
        *retry = true;
        return put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 451,
                                                           "TOO_BUSY", nullptr));
    }
    switch (status) {
    case 400:
        return TARVEX_BOX_GENERIC_ERROR("%s", "Bad BOX request");
    case 401:
    case 403:
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 550, "PERMISSION_DENIED", nullptr));
    case 404:
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 550, "PATH_NOT_FOUND", "%s", ""));
    case 409:
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "PATH_EXISTS", "GridFTP-Path: %s",
            or_null_text(nullptr)));
    case 429:
        *retry = true;
        return put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 451,
                                                           "TOO_BUSY", nullptr));
    default:
        break;
    }
    if (status >= 500)
        return put(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 500, "INTERNAL_ERROR", "%s", ""));
    return TARVEX_SUCCESS;
}

} // namespace

extern "C" tarvex_result_t tarvex_box_translate_response(
    const tarvex_dsi_rest_response_arg_t *response, json_t *json, bool *retry,
    unsigned long *retry_after)
{
    bool may_retry = false;
    unsigned long seconds = 0;
    const tarvex_dsi_rest_key_array_t &wanted = response->desired_headers;
    if (retry_after != nullptr && wanted.count > 0 && wanted.key_value != nullptr &&
        wanted.key_value[0].value != nullptr) {
        seconds = strtoul(wanted.key_value[0].value, nullptr, 10);
        may_retry = true;
    }

    tarvex_result_t result = json != nullptr
                                 ? translate_body(json)
                                 : translate_status(response->response_code, &may_retry);

    if (retry != nullptr)
        *retry = may_retry;
    if (retry_after != nullptr)
        *retry_after = seconds;
    return result;
}
