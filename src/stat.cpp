/*
 * The stat operation: the attributes of one item, or a folder listing
 * streamed to the server in batches of 100 entries as Box's pages arrive,
 * so that a folder of any size is listed in constant memory.
 */
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "get_folder_items.h"
#include "object_info_parse.h"
#include "path_resolve.h"
#include "session_journal.h"
#include "stat.h"
#include "tarvex_box_common.h"
#include "token.h"

namespace {

constexpr int tarvex_l_box_stat_batch = 100;

/* Releases the names of the first `count` entries, last to first. */
void tarvex_l_box_stat_release(tarvex_gridftp_server_control_stat_t *array, int count)
{
    for (int index = count - 1; index >= 0; index--) {
        free(array[index].name);
        array[index].name = nullptr;
    }
}

} // namespace

extern "C" void tarvex_i_box_stat(tarvex_gfs_operation_t op,
                                  tarvex_gfs_stat_info_t *stat_info, void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);

    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS)
        tarvex_gridftp_server_finished_stat(op, result, nullptr, 0);
    else if (stat_info->file_only)
        tarvex_i_box_stat_single(op, stat_info, box);
    else
        tarvex_i_box_stat_multi(op, stat_info, box);
    TARVEX_BOX_TRACE_EXIT();
}

extern "C" void tarvex_i_box_stat_single(tarvex_gfs_operation_t op,
                                         tarvex_gfs_stat_info_t *stat_info,
                                         tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_gridftp_server_control_stat_t stat = {};
    tarvex_box_path_info_t *entry = nullptr;

    tarvex_result_t result = tarvex_box_path_resolve(box, stat_info->pathname, &entry, nullptr);
    /* The server is always told of one entry, even on failure; it ignores
     * the entries of a failed answer. */
    if (result == TARVEX_SUCCESS)
        result = tarvex_box_info_to_stat(box, entry, &stat);
    tarvex_gridftp_server_finished_stat(op, result, &stat, 1);
    free(stat.name);
    TARVEX_BOX_TRACE_EXIT();
}

extern "C" void tarvex_i_box_stat_multi(tarvex_gfs_operation_t op,
                                        tarvex_gfs_stat_info_t *stat_info,
                                        tarvex_box_session_t *box)
{
    TARVEX_BOX_TRACE_ENTER();
    std::unique_ptr<tarvex_gridftp_server_control_stat_t[]> array(
        new (std::nothrow) tarvex_gridftp_server_control_stat_t[tarvex_l_box_stat_batch]());
    if (array == nullptr) {
        tarvex_gridftp_server_finished_stat(op, TARVEX_BOX_MALLOC_ERROR(), nullptr, 0);
        TARVEX_BOX_TRACE_EXIT();
        return;
    }
    tarvex_box_stat_state_t state = {op, stat_info, array.get(), 0};

    tarvex_box_path_info_t *entry = nullptr;
    tarvex_result_t result = tarvex_box_path_resolve(box, stat_info->pathname, &entry, nullptr);
    if (result == TARVEX_SUCCESS)
        result = tarvex_box_info_to_stat(box, entry, &state.stat_array[0]);
    if (result != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_stat(op, result, state.stat_array, 0);
        TARVEX_BOX_TRACE_EXIT();
        return;
    }

    /* The folder's own attributes lead the listing as ".".  Every cached
     * name has at least one character, so there is room in place. */
    state.stat_array[0].name[0] = '.';
    state.stat_array[0].name[1] = '\0';
    state.stat_count = 1;

    /* The type is not checked first: listing a file fails at Box, and that
     * answer is the one the client should see. */
    result = tarvex_box_get_folder_items(box, entry->id, stat_info->pathname,
                                         tarvex_box_stat_entry, &state);
    if (result == TARVEX_SUCCESS)
        tarvex_box_cache_mark_listed(entry);

    tarvex_gridftp_server_finished_stat(op, result, state.stat_array, state.stat_count);
    tarvex_l_box_stat_release(state.stat_array, state.stat_count);
    TARVEX_BOX_TRACE_EXIT();
}

extern "C" tarvex_result_t tarvex_box_stat_entry(tarvex_box_session_t *box, const char *,
                                                tarvex_box_path_info_t *path_info,
                                                void *callback_arg)
{
    auto *state = static_cast<tarvex_box_stat_state_t *>(callback_arg);

    /* Web links and the like have nothing a client could use. */
    if (path_info->type == TARVEX_BOX_UNKNOWN)
        return TARVEX_SUCCESS;

    tarvex_result_t result =
        tarvex_box_info_to_stat(box, path_info, &state->stat_array[state->stat_count]);
    if (result != TARVEX_SUCCESS)
        return result;

    if (++state->stat_count < tarvex_l_box_stat_batch)
        return TARVEX_SUCCESS;

    tarvex_gridftp_server_finished_stat_partial(state->op, TARVEX_SUCCESS, state->stat_array,
                                                tarvex_l_box_stat_batch);
    tarvex_l_box_stat_release(state->stat_array, tarvex_l_box_stat_batch);
    state->stat_count = 0;
    return TARVEX_SUCCESS;
}
