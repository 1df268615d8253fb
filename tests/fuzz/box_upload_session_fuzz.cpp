/*
 * Box's answer to creating an upload session: the session id, the part
 * size and the number of parts, read into the upload session record.
 */
#include <cstdlib>

#include "fuzz_support.h"
#include "path_cache.h"
#include "recv.h"
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
    json_t *json = json_loadb(reinterpret_cast<const char *>(data), size, JSON_DECODE_ANY,
                              &error);
    if (json == nullptr)
        return 0;

    // Zero-filled, as the upload code allocates it.
    auto *upload = static_cast<tarvex_box_upload_session_t *>(
        calloc(1, sizeof(tarvex_box_upload_session_t)));
    check(upload != nullptr, "out of memory");
    tarvex_result_t result = tarvex_box_upload_session_parse(json, upload);
    if (result == TARVEX_SUCCESS && upload->id != nullptr && upload->part_size != 0)
        check(upload->num_parts >= 0, "a negative number of parts taken");
    tarvex_box_upload_session_free(upload);
    json_decref(json);

    release(result);
    check_error_table_empty();
    return 0;
}
