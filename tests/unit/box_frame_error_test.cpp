/*
 * The translation of Box's error answers into FTP errors and retry advice.
 */
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "error.h"
#include "tarvex_box_common.h"
#include "translate_response.h"

namespace {

using object_ptr = std::unique_ptr<tarvex_object_t, void (*)(tarvex_object_t *)>;

struct translation {
    int status;
    const char *body, *retry_after; /* or nullptr */
    /* "code class message" of the FTP error, " +box" when the box error is
     * its cause; "box error"; "generic source: message"; "" for success */
    std::string result;
    bool retry;
    unsigned long seconds;
};

bool is_box_error(tarvex_object_t *object)
{
    return object != nullptr &&
           tarvex_object_type_match(tarvex_object_get_type(object), TARVEX_BOX_ERROR_TYPE);
}

void check(const translation &t)
{
    SCOPED_TRACE(std::to_string(t.status) + " " + (t.body ? t.body : "(no body)"));
    tarvex_dsi_rest_key_value_t wanted[1] = {{"Retry-After", t.retry_after}};
    tarvex_dsi_rest_response_arg_t response = {t.status, {1, wanted}, 0, 0};
    json_t *doc = t.body ? json_loads(t.body, 0, nullptr) : nullptr;
    bool retry = !t.retry_after; /* something the call must overwrite */
    unsigned long seconds = 99;
    object_ptr taken(
        tarvex_error_get(tarvex_box_translate_response(&response, doc, &retry, &seconds)),
        tarvex_object_free);
    tarvex_object_t *error = taken.get();
    json_decref(doc);
    EXPECT_EQ(retry, t.retry);
    EXPECT_EQ(seconds, t.seconds);
    std::string got;
    if (is_box_error(error)) {
        got = "box error";
    } else if (int code = tarvex_gfs_ftp_response_error_get_code(error)) {
        const char *message = tarvex_gfs_ftp_response_error_get_message(error);
        bool cause = is_box_error(tarvex_error_get_cause(error));
        got = std::to_string(code) + " " + tarvex_gfs_ftp_response_error_get_class(error) + " " +
              (message ? message : "") + (cause ? " +box" : "");
    } else if (error != nullptr) {
        got = std::string("generic ") + tarvex_error_get_file(error) + ": " +
              tarvex_error_get_message(error);
    }
    EXPECT_EQ(got, t.result);
}

TEST(BoxFrameError, TranslatesBoxAnswersByCodeAndStatus)
{
    const translation cases[] = {
        {404, R"({"code":"not_found","context_info":{"errors":[{"name":"a.txt"}]}})", nullptr,
         "550 PATH_NOT_FOUND GridFTP-Path: \"a.txt\" +box", false, 0},
        {404, R"({"code":"not_found"})", nullptr, "550 PATH_NOT_FOUND  +box", false, 0},
        {409, R"({"code":"item_name_in_use","context_info":{"conflicts":{"name":"x"}}})", nullptr,
         "553 PATH_EXISTS GridFTP-Path: x +box", false, 0},
        /* The list form of Box's published API: its first element. */
        {409, R"({"code":"item_name_in_use","context_info":{"conflicts":[{"name":"y"},{"name":"z"}]}})",
         nullptr, "553 PATH_EXISTS GridFTP-Path: y +box", false, 0},
        {404, R"({"code":"trashed"})", nullptr,
         "550 PATH_NOT_FOUND GridFTP-Path: \"<Trashed Item>\" +box", false, 0},
        {400, R"({"code":"item_name_invalid"})", nullptr,
         "553 INVALID_PATH_NAME GridFTP-Path: <Invalid Name> +box", false, 0},
        {400, R"({"code":"item_name_too_long"})", nullptr,
         "553 INVALID_PATH_NAME GridFTP-Path: <Invalid Name> +box", false, 0},
        {403, R"({"code":"access_denied_insufficient_permissions"})", nullptr,
         "550 PERMISSION_DENIED  +box", false, 0},
        {400, R"({"code":"bad_digest"})", nullptr, "550 INCORRECT_CHECKSUM GridFTP-Computed-"
         "Checksum: computed\nGridFTP-Expected-Checksum: expected +box", false, 0},
        /* No code: the status is not looked at, the box error is dropped. */
        {404, R"({"message":"m"})", nullptr, "500 INTERNAL_ERROR ", false, 0},
        {429, R"({"code":"rate_limit_exceeded"})", "5", "box error", true, 5},
        /* Bare statuses. */
        {302, nullptr, nullptr, "451 TOO_BUSY ", true, 0},
        {400, nullptr, nullptr, "generic translate_response: Bad BOX request", false, 0},
        {401, nullptr, nullptr, "550 PERMISSION_DENIED ", false, 0},
        {403, nullptr, "2", "550 PERMISSION_DENIED ", true, 2},
        {404, nullptr, nullptr, "550 PATH_NOT_FOUND ", false, 0},
        {409, nullptr, nullptr, "553 PATH_EXISTS GridFTP-Path: (null)", false, 0},
        {429, nullptr, nullptr, "451 TOO_BUSY ", true, 0},
        {503, nullptr, nullptr, "500 INTERNAL_ERROR ", false, 0},
        {503, nullptr, "7", "500 INTERNAL_ERROR ", true, 7},
        {418, nullptr, nullptr, "", false, 0},
        {499, nullptr, "1", "", true, 1},
    };
    for (const auto &c : cases)
        check(c);
}

} // namespace
