/*
 * The two read requests of the namespace: one folder's listing, page by
 * page, and one file's information.  Every item fetched is entered into
 * the session's path cache and, when the caller asks, handed to its
 * per-item function as it arrives, so that a listing of any size is
 * processed one page at a time.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "get_folder_items"
#include "config.h"
#include "get_folder_items.h"
#include "object_info_parse.h"
#include "path_cache.h"
#include "request.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "listing_markers.h"
#include "tarvex_result.h"

namespace {

constexpr const char *tarvex_l_box_list_fields =
    "type,id,name,parent,size,content_modified_at,sha1";
constexpr const char *tarvex_l_box_file_fields =
    "type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties";
/* The page's "limit": 300 unless the policy's "list_page_size" says
 * otherwise.  Larger pages mean fewer requests (and pacing delays), which
 * is what a distant Box's round trips cost most. */
std::string tarvex_l_box_page_limit()
{
    return std::to_string(tarvex_i_box_list_page_size);
}

/* One GET with the request conventions: two attempts, paced by the API
 * pacing state, the answer as JSON in request->json. */
tarvex_result_t tarvex_l_box_get(tarvex_box_session_t *box, const char *caller,
                                 const char *url, const tarvex_dsi_rest_key_array_t *query,
                                 tarvex_box_request_t *request)
{
    *request = {
        .method = "GET",
        .url = url,
        .query = query,
        .attempts = 2,
        .retry = &box->user_retry,
        .caller = caller,
    };
    return tarvex_box_request(box, request);
}

/*
 * Parses one item into a stack record, enters it into the cache under
 * `path`, and hands it to `callback`.  Whether the parser or the cache
 * failed, the caller learns only that the item could not be taken in.
 */
tarvex_result_t tarvex_l_box_take_item(tarvex_box_session_t *box, json_t *item,
                                       const char *path,
                                       tarvex_box_list_entry_cb_t callback,
                                       void *callback_arg)
{
    tarvex_box_path_info_t info = {};
    tarvex_box_info_guard guard{&info};

    if (!tarvex::Result(tarvex_box_object_info_parse(item, &info)).ok() ||
        !tarvex::Result(tarvex_box_path_cache_update(&box->cache, &info, path)).ok())
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed info_parse!");
    if (callback == nullptr)
        return TARVEX_SUCCESS;
    return callback(box, path, &info, callback_arg);
}

/*
 * Takes in one page of a listing.  `marker` receives the marker of the
 * next page, or stays empty on the last one.  A "next_marker" of "" is a
 * string too and asks for one more page.
 */
tarvex_result_t tarvex_l_box_take_page(tarvex_box_session_t *box, json_t *page,
                                       const char *path,
                                       tarvex_box_list_entry_cb_t callback,
                                       void *callback_arg, std::optional<std::string> *marker)
{
    if (page == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    json_t *next_marker = json_object_get(page, "next_marker");
    if (json_is_string(next_marker))
        marker->emplace(json_string_value(next_marker));

    json_t *entries = json_object_get(page, "entries");
    if (!json_is_array(entries))
        return TARVEX_BOX_GENERIC_ERROR("%s", "Json object not array when it was expected");

    for (size_t index = 0; index < json_array_size(entries); index++) {
        json_t *item = json_array_get(entries, index);
        if (item == nullptr)
            break;
        tarvex_result_t result =
            tarvex_l_box_take_item(box, item, path, callback, callback_arg);
        if (result != TARVEX_SUCCESS)
            return result;
    }
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_get_folder_items(tarvex_box_session_t *box, const char *folder_id,
                                              const char *path,
                                              tarvex_box_list_entry_cb_t callback,
                                              void *callback_arg)
{
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/2.0/folders/%s/items", tarvex_box_api_base(), folder_id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_result_t result = TARVEX_SUCCESS;
    std::optional<std::string> marker;
    tarvex_box_listing_markers markers;
    const std::string limit = tarvex_l_box_page_limit();
    do {
        /* The first page goes without a marker: the REST client leaves a
         * key without a value out of the query. */
        tarvex_dsi_rest_key_value_t query_pairs[] = {
            {"fields", tarvex_l_box_list_fields},
            {"usemarker", "true"},
            {"marker", marker ? marker->c_str() : nullptr},
            {"limit", limit.c_str()},
        };
        tarvex_dsi_rest_key_array_t query = {4, query_pairs};

        tarvex_box_request_t request = {};
        tarvex_box_request_guard guard{&request};
        result = tarvex_l_box_get(box, "tarvex_box_get_folder_items", url.get(), &query, &request);
        marker.reset();
        if (result != TARVEX_SUCCESS)
            break;
        result = tarvex_l_box_take_page(box, request.json, path, callback, callback_arg,
                                        &marker);
        if (result == TARVEX_SUCCESS && marker)
            result = markers.take(marker->c_str(), folder_id);
    } while (result == TARVEX_SUCCESS && marker);
    return result;
}

tarvex_result_t tarvex_l_box_get_file_info(tarvex_box_session_t *box, const char *file_id,
                                           const char *parent_path,
                                           tarvex_box_list_entry_cb_t callback,
                                           void *callback_arg)
{
    /* The trailing "/" is what Box's file endpoint has always been called
     * with here; keep it. */
    tarvex_box_cstr_ptr url(
        tarvex_common_create_string("%s/2.0/files/%s/", tarvex_box_api_base(), file_id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", tarvex_l_box_file_fields}};
    tarvex_dsi_rest_key_array_t query = {1, query_pairs};
    tarvex_box_request_t request = {};
    tarvex_box_request_guard guard{&request};
    tarvex_result_t result =
        tarvex_l_box_get(box, "tarvex_box_get_file_info", url.get(), &query, &request);
    if (result != TARVEX_SUCCESS)
        return result;
    if (request.json == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    return tarvex_l_box_take_item(box, request.json, parent_path, callback, callback_arg);
}

} // namespace

extern "C" tarvex_result_t tarvex_box_get_folder_items(tarvex_box_session_t *box,
                                                      const char *folder_id,
                                                      const char *path,
                                                      tarvex_box_list_entry_cb_t callback,
                                                      void *callback_arg)
{
    return TARVEX_BOX_TRACED(
        tarvex_l_box_get_folder_items(box, folder_id, path, callback, callback_arg));
}

extern "C" tarvex_result_t tarvex_box_get_file_info(tarvex_box_session_t *box,
                                                   const char *file_id,
                                                   const char *parent_path,
                                                   tarvex_box_list_entry_cb_t callback,
                                                   void *callback_arg)
{
    return TARVEX_BOX_TRACED(
        tarvex_l_box_get_file_info(box, file_id, parent_path, callback, callback_arg));
}

tarvex_result_t tarvex_box_listing_markers::take(const char *marker, const char *folder_id)
{
    if (seen_.size() >= page_budget)
        return TARVEX_BOX_GENERIC_ERROR("The listing of Box folder %s was stopped after %zu pages.",
                                        folder_id, page_budget);
    if (!seen_.insert(marker).second)
        return TARVEX_BOX_GENERIC_ERROR(
            "Box repeated a listing marker; the listing of folder %s was stopped.", folder_id);
    return TARVEX_SUCCESS;
}
