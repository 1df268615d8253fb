/*
 * Box item objects (folder listings, file information, upload answers):
 * any JSON Box might send becomes either a record or an error, and the
 * record's strings are its own.
 */
#include <cstring>

#include "fuzz_support.h"
#include "object_info_parse.h"
#include "tarvex_box_common.h"

using namespace tarvex_fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    activate_runtime();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    json_error_t error;
    // As the REST client reads an answer: any JSON value, not only objects.
    json_t *json = json_loadb(reinterpret_cast<const char *>(data), size, JSON_DECODE_ANY,
                              &error);
    if (json == nullptr)
        return 0;

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
    json_decref(json);

    release(result);
    check_error_table_empty();
    return 0;
}
