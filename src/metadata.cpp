/*
 * Box metadata properties: one string property in an item's global
 * "properties" instance.  The plug-in keeps the MD5 of a file there under
 * "tarvex-md5", where the item parser finds it again.
 *
 * The first property creates the instance (POST of an object); later ones
 * are patched into it (PUT of a one-operation JSON Patch, whose "add"
 * replaces a value already there).  The record's has_metadata flag says
 * which of the two is needed.  A create refused because the instance
 * exists after all is reported as Box refused it, not turned into an
 * update.
 */
#include <cerrno>
#include <cstring>
#include <string>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "metadata"
#include "config.h"
#include "metadata.h"
#include "request.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

namespace {

/* The body text: {"key": value} to create, or
 * [{"op": "add", "path": "/key", "value": value}] to update. */
tarvex_box_cstr_ptr tarvex_l_box_metadata_body(bool update, const char *key,
                                               const char *value)
{
    tarvex_box_json_ptr body;
    if (update) {
        std::string pointer = std::string("/") + key;
        body.reset(json_pack("[{s:s, s:s, s:s}]", "op", "add", "path", pointer.c_str(),
                             "value", value));
    } else {
        body.reset(json_pack("{s:s}", key, value));
    }
    if (body == nullptr)
        return nullptr;
    return tarvex_box_cstr_ptr(json_dumps(body.get(), JSON_COMPACT));
}

tarvex_result_t tarvex_l_box_set_metadata(tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *path_info,
                                          const char *key, const char *value)
{
    bool update = path_info->has_metadata;
    tarvex_box_cstr_ptr body = tarvex_l_box_metadata_body(update, key, value);
    if (body == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/2.0/%s/%s/metadata/global/properties", tarvex_box_api_base(),
        path_info->type == TARVEX_BOX_FOLDER ? "folders" : "files", path_info->id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    /* No trailing semicolon here, unlike the folder and rename requests:
     * Box has always been sent these two exactly so. */
    tarvex_dsi_rest_key_value_t headers[] = {
        {"Content-Type", update ? "application/json-patch+json" : "application/json"}};
    tarvex_dsi_rest_write_block_arg_t payload = {body.get(), strlen(body.get())};

    tarvex_box_request_t request = tarvex_box_body_request(
        update ? "PUT" : "POST", url.get(), headers, &payload,
        {.attempts = 2, .retry = &box->user_retry, .caller = "tarvex_i_box_set_metadata"});
    tarvex_box_request_guard guard{&request};
    tarvex_result_t result = tarvex_box_request(box, &request);
    if (result == TARVEX_SUCCESS)
        path_info->has_metadata = true;
    return result;
}

} // namespace

extern "C" tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t *box,
                                                     tarvex_box_path_info_t *path_info,
                                                     const char *key, const char *value)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_set_metadata(box, path_info, key, value));
}
