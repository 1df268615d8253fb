/*
 * Box's answers: an item object (folder listings, file information, upload
 * answers), an upload session, and an error answer's status, Retry-After
 * header and body.  The one body goes to every reader, as any of them may
 * meet any JSON Box sends: each makes a record or an error, and an error
 * body always names a failure.
 *
 * Input: "STATUS\nRETRY-AFTER\nBODY".  An empty second line means no
 * Retry-After header; a body that is not JSON is read as none, as the
 * REST client reads it.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "recv.h"
#include "tarvex_box_common.h"
#include "translate_response.h"

using namespace tarvex_fuzz;

namespace {

/* Any JSON value, not only objects, as the REST client reads an answer. */
void item(json_t *json)
{
    tarvex_box_path_info_t info = {};
    tarvex_result_t result = tarvex_box_object_info_parse(json, &info);
    if (result == TARVEX_SUCCESS) {
        check(info.type >= TARVEX_BOX_FOLDER && info.type <= TARVEX_BOX_UNKNOWN,
              "an item type out of range");
        check(info.parent_id != nullptr, "an item without a parent id");
    }
    // What the listing does with a record next: cache a copy, stat it.
    tarvex_box_path_info_t *copy = tarvex_box_path_info_copy(&info);
    if (copy != nullptr) {
        check(strcmp(copy->name, info.name) == 0 && strcmp(copy->id, info.id) == 0,
              "a copied record differs");
        tarvex_gridftp_server_control_stat_t stat = {};
        release(tarvex_box_info_to_stat(nullptr, copy, &stat));
        free(stat.name);
        tarvex_box_path_info_free(copy);
    }
    tarvex_box_path_info_free(&info);
    release(result);
}

void upload_session(json_t *json)
{
    // Zero-filled, as the upload code allocates it.
    auto *upload = static_cast<tarvex_box_upload_session_t *>(
        calloc(1, sizeof(tarvex_box_upload_session_t)));
    check(upload != nullptr, "out of memory");
    tarvex_result_t result = tarvex_box_upload_session_parse(json, upload);
    if (result == TARVEX_SUCCESS && upload->id != nullptr && upload->part_size != 0)
        check(upload->num_parts >= 0, "a negative number of parts taken");
    tarvex_box_upload_session_free(upload);
    release(result);
}

void error_answer(const std::string &status, const std::string &retry_after, json_t *json)
{
    tarvex_dsi_rest_key_value_t wanted[1] = {
        {"Retry-After", retry_after.empty() ? nullptr : retry_after.c_str()}};
    tarvex_dsi_rest_response_arg_t response = {};
    response.response_code = static_cast<int>(strtol(status.c_str(), nullptr, 10) % 100000);
    response.desired_headers = {1, wanted};

    bool retry = false;
    unsigned long seconds = 0;
    tarvex_result_t result = tarvex_box_translate_response(&response, json, &retry, &seconds);
    check(json == nullptr || result != TARVEX_SUCCESS, "an error body taken as success");
    release(result);
    // Callers that want no hints pass no pointers.
    release(tarvex_box_translate_response(&response, json, nullptr, nullptr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> fields = split(as_text(data, size), '\n', 3);
    fields.resize(3);
    const std::string &body = fields[2];
    // Header values are C strings: a NUL ends one.
    std::string retry_after = fields[1].substr(0, fields[1].find('\0'));

    json_error_t error;
    json_t *json = body.empty() ? nullptr
                                : json_loadb(body.data(), body.size(), JSON_DECODE_ANY, &error);
    if (json != nullptr) {
        item(json);
        upload_session(json);
    }
    error_answer(fields[0], retry_after, json);
    json_decref(json);
    check_error_table_empty();
    return 0;
}
