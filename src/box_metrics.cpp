#include "box_metrics.h"

#include <stdio.h>
#include <string.h>

void tarvex_box_metric_attempt(const tarvex_box_request_t *request)
{
    /* "GET 200": the method as Box was sent it, and the status (0 when no
     * answer came).  A method the server would not take as a label value
     * is named by what it is not. */
    char labels[48];
    const char *method = request->method != nullptr && strlen(request->method) <= 16
                             ? request->method
                             : "OTHER";
    int status = request->response.response_code;
    snprintf(labels, sizeof labels, "%s %d", method, status);
    tarvex_gridftp_server_metric_add("storage_requests", labels, 1);
    if (request->attempts_made > 1)
        tarvex_gridftp_server_metric_add("storage_retries", "", 1);
    if (status == 429)
        tarvex_gridftp_server_metric_add("storage_throttled", "", 1);
}

void tarvex_box_metric_retry_after(uint64_t seconds)
{
    tarvex_gridftp_server_metric_add("storage_retry_after_seconds", "", (double)seconds);
}

void tarvex_box_metric_paced(const tarvex_box_pacing_slot_t &slot)
{
    tarvex_gridftp_server_metric_observe("storage_pacing_wait_seconds", "",
                                         (double)slot.waited_us / 1e6);
}

void tarvex_box_metric_renewal(bool ok)
{
    tarvex_gridftp_server_metric_add("storage_token_renewals", "", 1);
    if (!ok)
        tarvex_gridftp_server_metric_add("storage_token_renewal_failures", "", 1);
}
