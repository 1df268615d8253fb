// tarvex_dsi_rest_request: one HTTP exchange on the calling thread.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dsi_rest_internal.h"

#if LIBCURL_VERSION_NUM < 0x075000
#error "libcurl 7.80 or later is needed: CURLOPT_PREREQFUNCTION keeps one request per exchange"
#endif

namespace tarvex_dsi_rest_internal {

std::optional<uint64_t> known_body_length(RequestContext &ctx,
                                          tarvex_dsi_rest_data_write_t writer, void *arg)
{
    if (writer == tarvex_dsi_rest_write_block)
        return block_length(ctx, arg);
    if (writer == tarvex_dsi_rest_write_json)
        return json_length(ctx, arg);
    if (writer == tarvex_dsi_rest_write_multipart)
        return multipart_length(ctx, arg);
    return std::nullopt;
}

namespace {

// Large enough that a fast stream is not chopped into tiny callbacks, small
// enough that each piece is still in the CPU cache when the read callback
// consumes it: 512 KiB measured slower than 64 KiB on loopback downloads.
constexpr long receive_buffer_size = 64L * 1024;
constexpr long send_buffer_size = 512L * 1024;

struct HandleReset {
    CURL *curl;
    ~HandleReset() { curl_easy_reset(curl); }
};

class HeaderList {
public:
    ~HeaderList() { curl_slist_free_all(list_); }
    bool add(const std::string &line)
    {
        curl_slist *grown = curl_slist_append(list_, line.c_str());
        if (grown == nullptr)
            return false;
        list_ = grown;
        return true;
    }
    curl_slist *get() const { return list_; }

private:
    curl_slist *list_ = nullptr;
};

// The response body, piece by piece, to the caller's read callback.
size_t receive_body(RequestContext &ctx, char *data, size_t length)
{
    ctx.touch();
    if (!deliver_response(ctx))
        return 0;
    ctx.body_bytes_received += length;
    tarvex_dsi_rest_data_read_t reader = ctx.callbacks.data_read_callback;
    if (reader == nullptr || length == 0)
        return length;
    // An error page is no part of the file being transferred.
    if (reader == tarvex_dsi_rest_read_gridftp_op && ctx.status >= 300)
        return length;
    tarvex_result_t result = reader(ctx.callbacks.data_read_callback_arg, data, length);
    if (result == TARVEX_SUCCESS)
        return length;
    ctx.fail(adopt_callback_error(result, "read", ctx.url));
    return 0;
}

size_t write_callback(char *data, size_t size, size_t count, void *userdata)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    return guard_callback(ctx, "the read callback", size_t{0},
                          [&] { return receive_body(ctx, data, size * count); });
}

// The request body, piece by piece, from the caller's write callback.
size_t send_body(RequestContext &ctx, char *buffer, size_t room)
{
    size_t produced = 0;
    tarvex_result_t result = ctx.callbacks.data_write_callback(
        ctx.callbacks.data_write_callback_arg, buffer, room, &produced);
    if (result == TARVEX_SUCCESS && produced > room)
        result = TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                       "The write callback overran its buffer: %s",
                                       ctx.url.c_str());
    if (result != TARVEX_SUCCESS) {
        ctx.fail(adopt_callback_error(result, "write", ctx.url));
        return CURL_READFUNC_ABORT;
    }
    ctx.body_bytes_sent += produced;
    if (produced > 0)
        ctx.touch();
    return produced;
}

size_t read_callback(char *buffer, size_t size, size_t count, void *userdata)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    return guard_callback(ctx, "the write callback", size_t{CURL_READFUNC_ABORT},
                          [&] { return send_body(ctx, buffer, size * count); });
}

tarvex_result_t refused_resend(const RequestContext &ctx)
{
    return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_TRANSPORT, nullptr,
                                 "The kept-alive connection closed before answering; the "
                                 "request is not sent again: %s %s",
                                 ctx.method.c_str(), ctx.url.c_str());
}

// libcurl sends a request again by itself when a reused kept-alive
// connection closes before any answer: on a new connection, with the body
// rewound, 1 ms after the first and unpaced (measured with 7.88).  Every
// attempt is the caller's to decide and to pace, and a body streamed from
// a data channel cannot be produced twice, so the second request of one
// exchange is stopped before any of its bytes go out, and the exchange
// fails as the dead connection did: retryable.  A request with a body is
// stopped where libcurl asks to rewind it (7.88 asks before the
// pre-request call), one without at the pre-request call.
int prerequest_callback(void *userdata, char *, char *, int, int)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    return guard_callback(ctx, "the pre-request callback", int{CURL_PREREQFUNC_ABORT}, [&] {
        if (++ctx.requests_started == 1)
            return int{CURL_PREREQFUNC_OK};
        ctx.fail(refused_resend(ctx));
        return int{CURL_PREREQFUNC_ABORT};
    });
}

// A body is produced once: libcurl rewinds one only to send its request
// again.
int seek_callback(void *userdata, curl_off_t, int)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    return guard_callback(ctx, "the seek callback", int{CURL_SEEKFUNC_FAIL}, [&] {
        ctx.fail(refused_resend(ctx));
        return int{CURL_SEEKFUNC_CANTSEEK};
    });
}

// A method goes into the request line as it is: only token characters.
bool valid_method(const char *method)
{
    if (method == nullptr || method[0] == '\0')
        return false;
    for (const char *c = method; *c != '\0'; c++)
        if (!isalnum(static_cast<unsigned char>(*c)) && strchr("!#$%&'*+-.^_`|~", *c) == nullptr)
            return false;
    return true;
}

bool method_is(const std::string &method, const char *name)
{
    return strcasecmp(method.c_str(), name) == 0;
}

void prepare_readers(RequestContext &ctx)
{
    if (ctx.callbacks.data_read_callback == tarvex_dsi_rest_read_json)
        prepare_json_reader(ctx, ctx.callbacks.data_read_callback_arg);
    else if (ctx.callbacks.data_read_callback == tarvex_dsi_rest_read_gridftp_op)
        prepare_gridftp_reader(ctx, ctx.callbacks.data_read_callback_arg);
}

// Method and body.  Returns false when the header list cannot grow.
bool set_body(CURL *curl, RequestContext &ctx, const HeaderPlan &plan, HeaderList &headers)
{
    if (method_is(ctx.method, "GET")) {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
        return true;
    }
    if (method_is(ctx.method, "HEAD")) {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        return true;
    }
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, ctx.method.c_str());
    if (method_is(ctx.method, "DELETE"))
        return true;
    if (ctx.callbacks.data_write_callback == nullptr) {
        // An empty body still says so ("Content-Length: 0"); curl's form
        // content type would be a lie.
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
        return plan.has_content_type || headers.add("Content-Type:");
    }
    std::optional<uint64_t> length = plan.content_length;
    if (!length)
        length = known_body_length(ctx, ctx.callbacks.data_write_callback,
                                   ctx.callbacks.data_write_callback_arg);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_callback);
    curl_easy_setopt(curl, CURLOPT_READDATA, &ctx);
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, seek_callback);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, &ctx);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, send_buffer_size);
    if (length)
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(*length));
    return true;
}

void set_transport(CURL *curl, RequestContext &ctx, const std::string &full_url,
                   char *error_buffer)
{
    curl_easy_setopt(curl, CURLOPT_URL, full_url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    // One exchange at a time per connection: HTTP/2 multiplexing would buy
    // nothing, while its flow-control windows would throttle downloads.
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_SSL_SESSIONID_CACHE, 1L);
    std::string ca = ca_file();
    if (!ca.empty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca.c_str()); // curl copies it
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, receive_buffer_size);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, header_callback);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &ctx);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write_callback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &ctx);
    curl_easy_setopt(curl, CURLOPT_PREREQFUNCTION, prerequest_callback);
    curl_easy_setopt(curl, CURLOPT_PREREQDATA, &ctx);
    if (ctx.callbacks.progress_callback != nullptr) {
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, xferinfo_callback);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &ctx);
    }
    set_trace(curl);
}

tarvex_result_t perform(CURL *curl, RequestContext &ctx, const std::string &full_url,
                        const tarvex_dsi_rest_key_array_t *headers_in)
{
    HeaderPlan plan;
    if (!plan_headers(headers_in, &plan))
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                     "Invalid request header (line break, or a Content-Length "
                                     "that is not a number): %s %s",
                                     ctx.method.c_str(), ctx.url.c_str());
    ctx.content_type = plan.content_type;
    HeaderList headers;
    for (const std::string &line : plan.lines)
        if (!headers.add(line))
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_FATAL, nullptr, "Out of memory");
    // "Expect: 100-continue" would cost a round trip (or a second's wait)
    // before every body.
    if (!plan.has_expect && !headers.add("Expect:"))
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_FATAL, nullptr, "Out of memory");

    char error_buffer[CURL_ERROR_SIZE] = "";
    curl_easy_reset(curl);
    // Nothing of this request (buffers, header list, the context) may stay
    // referenced by the handle the thread keeps, however this ends.
    HandleReset reset_on_exit{curl};
    set_transport(curl, ctx, full_url, error_buffer);
    prepare_readers(ctx);
    if (!set_body(curl, ctx, plan, headers))
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_FATAL, nullptr, "Out of memory");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());

    ctx.touch();
    CURLcode code = curl_easy_perform(curl);
    count_connections(curl);
    long status = 0;
    if (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && ctx.status == 0)
        ctx.status = static_cast<int>(status);

    bool transferred = code == CURLE_OK && ctx.failure == TARVEX_SUCCESS;
    if (transferred) // an answer without a body has not been delivered yet
        transferred = guard_callback(ctx, "the response callback", false,
                                     [&] { return deliver_response(ctx); });
    tarvex_result_t streams = ctx.finish_streams(transferred);
    if (ctx.failure == TARVEX_SUCCESS && code == CURLE_OK)
        return adopt_callback_error(streams, "read", ctx.url);
    // The transfer's own failure explains the streams' (a stream may have
    // recorded its failure as the request's too).
    if (streams != ctx.failure)
        tarvex_error_discard(streams);
    if (ctx.failure != TARVEX_SUCCESS)
        return ctx.failure;
    return transport_error(code, error_buffer, ctx.method, ctx.url);
}

// The request target of `url` as sent (path and query) and its path
// alone, longest first; none for a URL without a path.
std::vector<std::string> request_targets(const std::string &url)
{
    size_t host_start = url.find("://");
    size_t path_start = host_start == std::string::npos ? host_start : url.find('/', host_start + 3);
    if (path_start == std::string::npos || path_start + 1 >= url.size())
        return {};
    std::string target = url.substr(path_start, url.find('#', path_start) - path_start);
    std::string path = target.substr(0, target.find('?'));
    if (path == target || path.size() <= 1)
        return {target};
    return {target, path};
}

void record_byte_counts(const RequestContext &ctx)
{
    if (ctx.callbacks.response_callback != tarvex_dsi_rest_response ||
        ctx.callbacks.response_callback_arg == nullptr)
        return;
    auto *record = static_cast<tarvex_dsi_rest_response_arg_t *>(
        ctx.callbacks.response_callback_arg);
    record->request_bytes_uploaded = ctx.body_bytes_sent;
    record->response_bytes_downloaded = ctx.body_bytes_received;
}

tarvex_result_t request(const char *method, const char *url,
                        const tarvex_dsi_rest_key_array_t *query,
                        const tarvex_dsi_rest_key_array_t *headers,
                        const tarvex_dsi_rest_callbacks_t *callbacks)
{
    if (!valid_method(method) || url == nullptr || url[0] == '\0')
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                     "A request needs a method and a URL");
    // A URL sent without a credential of its own may be one (a pre-signed
    // download link): errors and logs name its host only.
    bool credentialed = carries_credential(headers);
    if (RequestContext::current() != nullptr)
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                     "A callback of a request made another request: %s %s",
                                     method, url_for_messages(url, credentialed).c_str());
    CURL *curl = thread_handle();
    if (curl == nullptr)
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_FATAL, nullptr,
                                     "libcurl could not be started");

    RequestContext ctx(method, url_for_messages(url, credentialed), callbacks);
    std::string full_url = url_with_query(url, query);
    if (!credentialed)
        ctx.hidden = request_targets(full_url);
    int64_t started = tarvex_time_monotonic_usec();
    tarvex_result_t result = perform(curl, ctx, full_url, headers);
    record_byte_counts(ctx);
    TARVEX_DSI_REST_LOG(DEBUG, "DEBUG", "%s %s -> %d, %llu bytes in, %llu out, %.3f s\n",
                        method, ctx.url.c_str(), ctx.status,
                        static_cast<unsigned long long>(ctx.body_bytes_received),
                        static_cast<unsigned long long>(ctx.body_bytes_sent),
                        (tarvex_time_monotonic_usec() - started) / 1e6);
    if (result != TARVEX_SUCCESS && (debug_handle.levels & DEBUG_ERROR) != 0) {
        char *text = tarvex_error_print_chain(tarvex_error_peek(result));
        TARVEX_DSI_REST_LOG(ERROR, "ERROR", "%s\n", text != nullptr ? text : "");
        free(text);
    }
    return result;
}

} // namespace

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_request(const char *method, const char *url,
                                                   const tarvex_dsi_rest_key_array_t *query,
                                                   const tarvex_dsi_rest_key_array_t *headers,
                                                   const tarvex_dsi_rest_callbacks_t *callbacks)
{
    tarvex_result_t result = guard_result(
        __func__, [&] { return request(method, url, query, headers, callbacks); });
    if (callbacks != nullptr && callbacks->complete_callback != nullptr)
        guard_quiet("the complete callback", [&] {
            callbacks->complete_callback(callbacks->complete_callback_arg, result);
        });
    return result;
}
