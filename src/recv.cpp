/*
 * Upload (STOR).  Served from a later release; until then the transfer is
 * answered once with a clear error and nothing is stored on Box.
 */
#include "tarvex_box_common.h"

extern "C" void tarvex_i_box_recv(tarvex_gfs_operation_t op,
                                  tarvex_gfs_transfer_info_t *, void *)
{
    TARVEX_BOX_TRACE_ENTER();
    tarvex_result_t result = tarvex_box_not_implemented_yet("STOR (upload)");
    tarvex_gridftp_server_finished_transfer(op, result);
    TARVEX_BOX_TRACE_RESULT(result);
}
