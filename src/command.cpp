/*
 * FTP commands other than transfers and stat.  This release serves none
 * of them yet: the ones Box will serve answer "not implemented yet", every
 * other command gets the fixed refusal.  Each call is answered once.
 */
#include <errno.h>

#include "tarvex_box_common.h"

namespace {

/* What the later release will serve, by name; NULL for the refused. */
const char *served_later(tarvex_gfs_command_type_t command)
{
    switch (command) {
    case TARVEX_GFS_CMD_MKD: return "MKD (make folder)";
    case TARVEX_GFS_CMD_RMD: return "RMD (remove folder)";
    case TARVEX_GFS_CMD_DELE: return "DELE (delete file)";
    case TARVEX_GFS_CMD_SITE_RDEL: return "SITE RDEL (recursive delete)";
    case TARVEX_GFS_CMD_RNTO: return "RNTO (rename)";
    case TARVEX_GFS_CMD_CKSM: return "CKSM (checksum)";
    default: return nullptr;
    }
}

/* The class word is spelled so on purpose: clients have always seen it. */
tarvex_result_t refusal()
{
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 500, "NOT_IMPLEMETED", nullptr);
    return error ? tarvex_error_put(error) : TARVEX_BOX_MALLOC_ERROR();
}

} // namespace

extern "C" void tarvex_i_box_command(tarvex_gfs_operation_t op,
                                     tarvex_gfs_command_info_t *cmd_info,
                                     void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS) {
        tarvex_gridftp_server_finished_command(op, result, nullptr);
        TARVEX_BOX_TRACE_RESULT(result);
        return;
    }
    const char *what = served_later(cmd_info->command);
    result = what ? tarvex_box_not_implemented_yet(what) : refusal();
    tarvex_gridftp_server_finished_command(op, result, nullptr);
    TARVEX_BOX_TRACE_EXIT();
}
