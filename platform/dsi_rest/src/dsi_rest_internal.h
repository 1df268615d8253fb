/*
 * Private declarations shared by the REST client's source files.
 *
 * A request is synchronous on its thread, so everything that belongs to
 * the request in flight (collected headers, the idle clock, the state of
 * the stock body writers and readers) lives in one RequestContext that the
 * request installs in a thread_local for its duration.  The stock
 * callbacks have only their caller's argument; they find the rest there.
 */
#ifndef TARVEX_DSI_REST_INTERNAL_H
#define TARVEX_DSI_REST_INTERNAL_H

#include <curl/curl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarvex_c_edge.h"
#include "tarvex_dsi_rest.h"

namespace tarvex_dsi_rest_internal {

/* ---- debug output (module.cpp) ---- */

enum : unsigned {
    DEBUG_ERROR = 1,
    DEBUG_WARN = 2,
    DEBUG_INFO = 4,
    DEBUG_DEBUG = 8,
    DEBUG_TRACE = 16
};
extern tarvex_debug_handle_t debug_handle;
#define TARVEX_DSI_REST_LOG(level, name, ...)                                     \
    tarvex_debug_printf(&tarvex_dsi_rest_internal::debug_handle,                  \
                        tarvex_dsi_rest_internal::DEBUG_##level, "dsi_rest", name, \
                        __VA_ARGS__)

/* At TRACE level, libcurl's text and header lines go to the debug
 * stream with credential values hidden (trace.cpp). */
void set_trace(CURL *curl);

/* curl_global_init exactly once, whoever comes first (module activation
 * or a request made without it).  False when libcurl cannot start. */
bool curl_ready();

/* ---- errors (errors.cpp) ---- */

tarvex_result_t make_error(int type, tarvex_object_t *cause, const char *file,
                           const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
#define TARVEX_DSI_REST_ERROR(type, cause, ...)                                  \
    tarvex_dsi_rest_internal::make_error((type), (cause), __FILE__, __func__,    \
                                         __LINE__, __VA_ARGS__)

/* The error type a failed transfer gets: TRANSPORT for failures a new
 * attempt may cure, FATAL for the rest. */
int curl_error_type(CURLcode code);

/* An error for a failed curl transfer; `detail` is curl's error buffer. */
tarvex_result_t transport_error(CURLcode code, const char *detail,
                                const std::string &method, const std::string &url);

/* A callback's failure as the request's result.  Errors of this module
 * (idle time-out, a stock callback's own error) pass through unchanged;
 * anything else becomes a CALLBACK error whose cause it is. */
tarvex_result_t adopt_callback_error(tarvex_result_t result, const char *which,
                                     const std::string &url);

/* ---- C edges (errors.cpp) ----
 *
 * No C++ exception may unwind into libcurl, the server framework or a C
 * caller: C code has no cleanup to run on the way, so an exception through
 * libcurl would leave its handle (and its locks) half way through a
 * transfer, and where the C frames carry no unwind tables it ends the
 * process.  Every extern "C" function and every callback handed to libcurl
 * or to the framework runs its body through one of the guards below
 * (guard_callback, for libcurl's, follows RequestContext). */

/* The exception being handled as an error of this module (bad_alloc:
 * FATAL; anything else: CALLBACK).  Only inside a catch block. */
tarvex_result_t exception_error(const char *where) noexcept;
/* The exception being handled, logged at ERROR and dropped. */
void log_exception(const char *where) noexcept;

/* A body returning tarvex_result_t: an exception becomes its result. */
template <class Body>
tarvex_result_t guard_result(const char *where, Body &&body) noexcept
{
    return tarvex::at_c_edge_with(std::forward<Body>(body),
                                  [where] { return exception_error(where); });
}

/* A body with nothing to report an error through: an exception is logged
 * and `fallback` returned. */
template <class T, class Body>
T guard_quiet(const char *where, T fallback, Body &&body) noexcept
{
    return tarvex::at_c_edge_with(std::forward<Body>(body), [where, &fallback] {
        log_exception(where);
        return fallback;
    });
}
template <class Body>
void guard_quiet(const char *where, Body &&body) noexcept
{
    tarvex::at_c_edge_with(std::forward<Body>(body), [where] { log_exception(where); });
}

/* ---- key arrays (key_array.cpp) ---- */

bool header_name_equals(std::string_view a, std::string_view b);
std::string_view trim(std::string_view text);
/* Percent-encodes everything but the unreserved characters of RFC 3986. */
std::string url_encode(std::string_view text);
/* `url` with the pairs of `query` appended ("?k=v&..."; NULL values left out). */
std::string url_with_query(const char *url, const tarvex_dsi_rest_key_array_t *query);
/* `url` as errors and logs name it: its scheme and host (without a user
 * or password), and its path only when `with_path`; never its query or
 * fragment. */
std::string url_for_messages(const char *url, bool with_path);
/* Whether the headers hold a non-empty "Authorization": a request that
 * authenticates so has a URL that is no secret; one without may be
 * authorised by its URL alone (a pre-signed link). */
bool carries_credential(const tarvex_dsi_rest_key_array_t *headers);
/* The boundary parameter of a multipart Content-Type value, or "". */
std::string boundary_of(std::string_view content_type);

/* What the caller's header list asks of curl. */
struct HeaderPlan {
    std::vector<std::string> lines;      /* "Key: value", or "Key:" to remove */
    std::optional<uint64_t> content_length;
    std::string content_type;
    bool has_expect = false;
    bool has_content_type = false;
};
/* False when a "Content-Length" value is not a number or a name or value
 * holds a line break. */
bool plan_headers(const tarvex_dsi_rest_key_array_t *headers, HeaderPlan *plan);

/* ---- per-request context (context.cpp) ---- */

class RequestContext;

/* State of a stock body writer or reader for one request.  Readers finish
 * after the transfer (parse the JSON, wait for writes in flight).  A body
 * is produced once: a request is never sent twice (request.cpp), so no
 * stream is ever asked to start over. */
class Stream {
public:
    virtual ~Stream() = default;
    /* `transferred`: the exchange completed.  Returns the stream's own
     * failure, if any; called once, also after failed transfers. */
    virtual tarvex_result_t finish(RequestContext &ctx, bool transferred)
    {
        (void)ctx;
        (void)transferred;
        return TARVEX_SUCCESS;
    }
};

/* A request body held whole in memory: its length is known in advance. */
class MemoryBody : public Stream {
public:
    size_t size() const { return size_; }

    size_t read(char *buffer, size_t length)
    {
        size_t n = std::min(length, size_ - position_);
        if (n > 0)
            memcpy(buffer, data_ + position_, n);
        position_ += n;
        return n;
    }

protected:
    void set_body(const char *data, size_t size)
    {
        data_ = data;
        size_ = size;
    }

private:
    const char *data_ = nullptr;
    size_t size_ = 0;
    size_t position_ = 0;
};

class RequestContext {
public:
    RequestContext(std::string method, std::string url,
                   const tarvex_dsi_rest_callbacks_t *callbacks);
    ~RequestContext();
    RequestContext(const RequestContext &) = delete;
    RequestContext &operator=(const RequestContext &) = delete;

    /* The context of the request running on this thread, or NULL. */
    static RequestContext *current();

    const std::string method;
    const std::string url;         /* as messages name it (url_for_messages) */
    /* What the trace hides, when the URL may be a credential: the request
     * target (path and query) as sent, and the path alone. */
    std::vector<std::string> hidden;
    tarvex_dsi_rest_callbacks_t callbacks{};
    std::string content_type;      /* the request's Content-Type */

    /* the response as far as it has arrived */
    int status = 0;
    std::string status_line;
    std::vector<std::pair<std::string, std::string>> headers;
    bool headers_complete = false;
    bool response_delivered = false;

    uint64_t body_bytes_received = 0;
    uint64_t body_bytes_sent = 0;

    /* Requests libcurl set out to send in this exchange (see request.cpp:
     * only the first may go). */
    int requests_started = 0;

    /* The first failure of a callback; the request returns it. */
    tarvex_result_t failure = TARVEX_SUCCESS;
    void fail(tarvex_result_t result);

    /* The idle clock: moved whenever bytes move either way. */
    void touch();
    int64_t idle_usec() const;

    /* Calls the caller's progress callback (if any) with the current
     * counts; used by stock callbacks that wait on another thread, since
     * curl cannot call it while they block.  A failure is recorded. */
    tarvex_result_t report_progress();

    /* The stream kept for (kind, arg), made by `make` the first time. */
    template <class T, class Make>
    T *stream(const void *kind, const void *arg, Make make)
    {
        for (auto &entry : streams_)
            if (entry.kind == kind && entry.arg == arg)
                return static_cast<T *>(entry.stream.get());
        std::unique_ptr<T> made = make();
        T *raw = made.get();
        if (raw != nullptr)
            streams_.push_back({kind, arg, std::move(made)});
        return raw;
    }
    /* The stream of the stock callback `callback` kept for `arg`, made
     * from `arg` (an A *) the first time. */
    template <class T, class A, class Callback>
    T *stream_of(Callback *callback, void *arg)
    {
        return stream<T>(reinterpret_cast<const void *>(callback), arg,
                         [arg] { return std::make_unique<T>(static_cast<A *>(arg)); });
    }
    /* Finishes every stream in the order made; the first failure wins. */
    tarvex_result_t finish_streams(bool transferred);

private:
    struct Entry {
        const void *kind;
        const void *arg;
        std::unique_ptr<Stream> stream;
    };
    std::vector<Entry> streams_;
    int64_t last_activity_usec_;
    RequestContext *outer_;
};

/* A callback handed to libcurl: an exception fails the request (the
 * request returns it) and the callback answers libcurl `abort`. */
template <class T, class Body>
T guard_callback(RequestContext &ctx, const char *where, T abort, Body &&body) noexcept
{
    return tarvex::at_c_edge_with(std::forward<Body>(body), [&ctx, where, abort] {
        ctx.fail(exception_error(where));
        return abort;
    });
}

/* ---- stock callbacks' request hooks ---- */

/* The body length a stock writer will produce, when it is known in
 * advance (block, JSON, multipart made of those). */
std::optional<uint64_t> known_body_length(RequestContext &ctx,
                                          tarvex_dsi_rest_data_write_t writer,
                                          void *arg);
std::optional<uint64_t> block_length(RequestContext &ctx, void *arg);
std::optional<uint64_t> json_length(RequestContext &ctx, void *arg);
std::optional<uint64_t> multipart_length(RequestContext &ctx, void *arg);

/* Multipart framing, exposed for unit tests: the text before part
 * `index` (the closing delimiter when index == num_parts). */
std::string multipart_delimiter(const std::string &boundary,
                                const tarvex_dsi_rest_multipart_arg_t *arg,
                                size_t index);

/* ---- limits on JSON answers (json.cpp) ---- */

/* A TARVEX_DSI_REST_JSON_LIMIT value: a byte count, optionally followed by
 * K, M or G (binary multiples); nothing for anything else, 0 included. */
std::optional<size_t> parse_byte_count(std::string_view text);

/* Watches a JSON text go by, piece by piece, for what would make parsing
 * it costly, without parsing it: the nesting depth, and the number of
 * values weighted by what jansson spends on each (measured with jansson
 * 2.14: an empty object about 230 bytes, an empty array 140, a number 48,
 * a string 90; so objects and arrays weigh `container_weight`, strings,
 * keys and bare words (numbers, true, false, null) 1).  Syntax is the
 * parser's business: on a text that is not JSON the counts are only an
 * estimate, never a crash. */
class JsonShape {
public:
    static constexpr uint64_t container_weight = 4;

    void feed(std::string_view text);
    unsigned max_depth() const { return max_depth_; }
    uint64_t weight() const { return weight_; }

private:
    unsigned depth_ = 0;
    unsigned max_depth_ = 0;
    uint64_t weight_ = 0;
    bool in_string_ = false;
    bool escaped_ = false;
    bool in_word_ = false;
};

/* Readers that need to act before or after the body. */
void prepare_json_reader(RequestContext &ctx, void *arg);
void prepare_gridftp_reader(RequestContext &ctx, void *arg);

/* ---- the response head (response.cpp) ---- */

/* curl's CURLOPT_HEADERFUNCTION; userdata is the RequestContext. */
size_t header_callback(char *data, size_t size, size_t count, void *userdata);
/* Calls the response callback once; false when it failed. */
bool deliver_response(RequestContext &ctx);

/* ---- progress (progress.cpp) ---- */

/* curl's CURLOPT_XFERINFOFUNCTION; userdata is the RequestContext. */
int xferinfo_callback(void *userdata, curl_off_t download_total, curl_off_t downloaded,
                      curl_off_t upload_total, curl_off_t uploaded);

/* ---- connections (connection.cpp) ---- */

/* This thread's easy handle, made on first use; NULL when curl fails. */
CURL *thread_handle();
void count_connections(CURL *handle);
/* The CA file to verify servers with ("" for the system's). */
std::string ca_file();

// The frame of a stock body callback: exceptions stopped, and an argument
// error naming `function` when it is called outside a request; `body`
// takes the request's context.
template <class Body>
tarvex_result_t in_request(const char *function, Body &&body) noexcept
{
    return guard_result(function, [&] {
        RequestContext *ctx = RequestContext::current();
        if (ctx == nullptr)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                         "%s called outside a request", function);
        return body(*ctx);
    });
}

} // namespace tarvex_dsi_rest_internal

#endif
