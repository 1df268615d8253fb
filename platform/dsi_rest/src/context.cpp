// The per-request context: found by the stock callbacks through a
// thread_local while the request runs on this thread.
#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {
thread_local RequestContext *t_current = nullptr;
}

RequestContext::RequestContext(std::string method_in, std::string url_in,
                               const tarvex_dsi_rest_callbacks_t *callbacks_in)
    : method(std::move(method_in)), url(std::move(url_in)),
      last_activity_usec_(tarvex_time_monotonic_usec()), outer_(t_current)
{
    if (callbacks_in != nullptr)
        callbacks = *callbacks_in;
    t_current = this;
}

RequestContext::~RequestContext()
{
    t_current = outer_;
}

RequestContext *RequestContext::current()
{
    return t_current;
}

void RequestContext::fail(tarvex_result_t result)
{
    if (failure == TARVEX_SUCCESS)
        failure = result;
    else if (result != failure)
        tarvex_error_discard(result); // only the first is reported
}

void RequestContext::touch()
{
    last_activity_usec_ = tarvex_time_monotonic_usec();
}

int64_t RequestContext::idle_usec() const
{
    return tarvex_time_monotonic_usec() - last_activity_usec_;
}

tarvex_result_t RequestContext::report_progress()
{
    if (callbacks.progress_callback == nullptr)
        return TARVEX_SUCCESS;
    tarvex_result_t result = callbacks.progress_callback(
        callbacks.progress_callback_arg, 0, body_bytes_received, 0, body_bytes_sent);
    if (result != TARVEX_SUCCESS) {
        result = adopt_callback_error(result, "progress", url);
        fail(result);
    }
    return result;
}

tarvex_result_t RequestContext::finish_streams(bool transferred)
{
    tarvex_result_t first = TARVEX_SUCCESS;
    for (auto &entry : streams_) {
        tarvex_result_t result = entry.stream->finish(*this, transferred);
        if (first == TARVEX_SUCCESS)
            first = result;
        else if (result != first && result != failure)
            tarvex_error_discard(result); // only the first is reported
    }
    return first;
}

} // namespace tarvex_dsi_rest_internal
