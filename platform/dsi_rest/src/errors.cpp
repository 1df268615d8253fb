// The REST client's errors and which of them are worth another attempt.
#include <cstdarg>
#include <cstdlib>
#include <exception>
#include <new>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

tarvex_result_t make_error(int type, tarvex_object_t *cause, const char *file,
                           const char *function, int line, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *error = tarvex_error_v_construct_error(
        &tarvex_i_dsi_rest_module, cause, type, file, function, line, format, ap);
    va_end(ap);
    return tarvex_error_put(error);
}

int curl_error_type(CURLcode code)
{
    switch (code) {
    case CURLE_COULDNT_CONNECT:      // refused, unreachable
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_PARTIAL_FILE:         // the body ended before its announced length
    case CURLE_SEND_ERROR:           // includes a reset while sending
    case CURLE_RECV_ERROR:           // includes a reset while receiving
    case CURLE_GOT_NOTHING:          // the server closed without answering
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return TARVEX_DSI_REST_ERROR_TRANSPORT;
    default:
        return TARVEX_DSI_REST_ERROR_FATAL;
    }
}

tarvex_result_t transport_error(CURLcode code, const char *detail,
                                const std::string &method, const std::string &url)
{
    const char *text = curl_easy_strerror(code);
    if (detail != nullptr && detail[0] != '\0')
        return TARVEX_DSI_REST_ERROR(curl_error_type(code), nullptr, "%s (%s): %s %s",
                                     text, std::string(trim(detail)).c_str(),
                                     method.c_str(), url.c_str());
    return TARVEX_DSI_REST_ERROR(curl_error_type(code), nullptr, "%s: %s %s", text,
                                 method.c_str(), url.c_str());
}

tarvex_result_t adopt_callback_error(tarvex_result_t result, const char *which,
                                     const std::string &url)
{
    if (result == TARVEX_SUCCESS)
        return result;
    const tarvex_object_t *error = tarvex_error_peek(result);
    if (error != nullptr && tarvex_error_get_source(error) == &tarvex_i_dsi_rest_module)
        return result;
    tarvex_object_t *cause = tarvex_error_get(result);
    return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, cause,
                                 "The %s callback failed: %s", which, url.c_str());
}

tarvex_result_t exception_error(const char *where) noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_FATAL, nullptr, "Out of memory in %s",
                                     where);
    } catch (const std::exception &e) {
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                     "Exception in %s: %s", where, e.what());
    } catch (...) {
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                     "Exception of an unknown type in %s", where);
    }
}

void log_exception(const char *where) noexcept
{
    tarvex_result_t result = exception_error(where);
    if ((debug_handle.levels & DEBUG_ERROR) != 0) {
        char *text = tarvex_error_print_chain(tarvex_error_peek(result));
        TARVEX_DSI_REST_LOG(ERROR, "ERROR", "%s\n", text != nullptr ? text : "");
        free(text);
    }
    tarvex_error_discard(result);
}

} // namespace tarvex_dsi_rest_internal

extern "C" bool tarvex_dsi_rest_error_is_retryable(tarvex_result_t result)
{
    return tarvex_dsi_rest_internal::guard_quiet(__func__, false, [result] {
        // Only the outermost error counts: a callback failure stays final
        // even when something retryable lies in its cause chain.
        const tarvex_object_t *error = tarvex_error_peek(result);
        if (error == nullptr || tarvex_error_get_source(error) != &tarvex_i_dsi_rest_module)
            return false;
        int type = tarvex_error_get_type(error);
        return type == TARVEX_DSI_REST_ERROR_TRANSPORT || type == TARVEX_DSI_REST_ERROR_TIMEOUT;
    });
}
