// Progress: curl's transfer-info callback, and the stock idle time-out.
#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

int xferinfo_callback(void *userdata, curl_off_t download_total, curl_off_t downloaded,
                      curl_off_t upload_total, curl_off_t uploaded)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    if (ctx.callbacks.progress_callback == nullptr)
        return 0;
    return guard_callback(ctx, "the progress callback", 1, [&] {
        tarvex_result_t result = ctx.callbacks.progress_callback(
            ctx.callbacks.progress_callback_arg, static_cast<uint64_t>(download_total),
            static_cast<uint64_t>(downloaded), static_cast<uint64_t>(upload_total),
            static_cast<uint64_t>(uploaded));
        if (result == TARVEX_SUCCESS)
            return 0;
        ctx.fail(adopt_callback_error(result, "progress", ctx.url));
        return 1;
    });
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_progress_idle_timeout(
    void *progress_callback_arg, uint64_t total_read_expected, uint64_t read_so_far,
    uint64_t total_write_expected, uint64_t written_so_far)
{
    (void)total_read_expected;
    (void)read_so_far;
    (void)total_write_expected;
    (void)written_so_far;
    RequestContext *ctx = RequestContext::current();
    // A request made for a server operation that has been cancelled (the
    // client aborted, left, or the server is stopping) ends here; curl
    // calls this at least once a second, also while nothing moves.  The
    // error is final: a retry would only be cancelled again.
    if (tarvex_gridftp_server_thread_cancelled())
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                     "The operation was cancelled: %s %s",
                                     ctx != nullptr ? ctx->method.c_str() : "",
                                     ctx != nullptr ? ctx->url.c_str() : "");
    // The counts alone cannot tell a stall: the body callbacks move the
    // request's clock whenever a byte goes either way, headers included.
    auto limit_ms = reinterpret_cast<uintptr_t>(progress_callback_arg);
    if (limit_ms == 0 || ctx == nullptr)
        return TARVEX_SUCCESS;
    int64_t idle_usec = ctx->idle_usec();
    if (idle_usec <= static_cast<int64_t>(limit_ms) * 1000)
        return TARVEX_SUCCESS;
    return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_TIMEOUT, nullptr,
                                 "No data moved for %lu ms: %s %s",
                                 static_cast<unsigned long>(idle_usec / 1000),
                                 ctx->method.c_str(), ctx->url.c_str());
}
