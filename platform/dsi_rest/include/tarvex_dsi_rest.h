/*
 * tarvex_dsi_rest: a synchronous HTTP(S) client for storage plug-ins, on
 * libcurl.
 *
 * One call of tarvex_dsi_rest_request() is one HTTP exchange made on the
 * calling thread, and at most one request goes out for it: when a reused
 * kept-alive connection closes before answering, the call fails with a
 * retryable TARVEX_DSI_REST_ERROR_TRANSPORT error instead of sending the
 * request again by itself, so that the caller decides about (and paces)
 * every attempt, and no body is ever produced or sent twice within a
 * call.  Connections are kept alive and reused between requests
 * of the same thread, TLS sessions are reused, redirects are never
 * followed (a 302 and its "Location" reach the caller), and bodies are
 * streamed through callbacks.  TLS peer and host verification are always
 * on; a CA file for test servers can be set with
 * tarvex_dsi_rest_set_ca_file() or the environment variable
 * TARVEX_DSI_REST_CA_FILE.
 *
 * Result: TARVEX_SUCCESS means an HTTP exchange happened and its status is
 * known (through the response callback); anything else means none did
 * (resolve, connect, TLS, time-out, a callback that failed, ...).
 *
 * Errors and log lines name a request by its method and URL without query,
 * fragment or user; a request without an "Authorization" header is named
 * by the URL's scheme and host alone (its path hidden from the trace too),
 * since such a URL may be a credential itself: a pre-signed download link
 * carries its signature in the path as well as in the query.
 *
 * Debug output: TARVEX_DSI_REST_DEBUG (grammar of tarvex_debug.h; levels
 * "ERROR WARN INFO DEBUG TRACE").
 */
#ifndef TARVEX_DSI_REST_H
#define TARVEX_DSI_REST_H

#include <jansson.h>

#include "tarvex_common.h"
#include "tarvex_gridftp_server.h"

#ifdef __cplusplus
extern "C" {
#endif

TARVEX_API extern tarvex_module_descriptor_t tarvex_i_dsi_rest_module;

/* ---- key arrays: query parameters, request headers, wanted headers ---- */

typedef struct tarvex_dsi_rest_key_value_s {
    const char *key;
    const char *value;
} tarvex_dsi_rest_key_value_t;

typedef struct tarvex_dsi_rest_key_array_s {
    size_t count;
    tarvex_dsi_rest_key_value_t *key_value;
} tarvex_dsi_rest_key_array_t;

/* ---- callbacks ---- */

/* Called once the response status line and headers have arrived, before
 * any body byte.  `response_headers` holds every header received (keys as
 * sent by the server).  A failure aborts the request. */
typedef tarvex_result_t (*tarvex_dsi_rest_response_t)(
    void *response_callback_arg, int response_code, const char *response_status,
    const tarvex_dsi_rest_key_array_t *response_headers);

/* Called once at the end of every request with its result. */
typedef void (*tarvex_dsi_rest_complete_t)(void *complete_callback_arg,
                                           tarvex_result_t result);

/* Produces the request body: fills up to `buffer_length` bytes of `buffer`
 * and stores the count in `bytes_written`; 0 bytes means the body is
 * complete.  A failure aborts the request.  A callback may be called for
 * several requests with the same argument (retries); the stock callbacks
 * start from the beginning of their data at each request. */
typedef tarvex_result_t (*tarvex_dsi_rest_data_write_t)(
    void *write_callback_arg, char *buffer, size_t buffer_length,
    size_t *bytes_written);

/* Consumes the response body, one piece at a time.  A failure aborts the
 * request. */
typedef tarvex_result_t (*tarvex_dsi_rest_data_read_t)(
    void *read_callback_arg, void *buffer, size_t buffer_length);

/* Called as the transfer progresses (and at least once a second while it
 * waits).  A failure aborts the request. */
typedef tarvex_result_t (*tarvex_dsi_rest_progress_t)(
    void *progress_callback_arg, uint64_t total_read_expected,
    uint64_t read_so_far, uint64_t total_write_expected, uint64_t written_so_far);

typedef struct tarvex_dsi_rest_callbacks_s {
    tarvex_dsi_rest_response_t response_callback;
    void *response_callback_arg;
    tarvex_dsi_rest_complete_t complete_callback;
    void *complete_callback_arg;
    tarvex_dsi_rest_data_write_t data_write_callback;
    void *data_write_callback_arg;
    tarvex_dsi_rest_data_read_t data_read_callback;
    void *data_read_callback_arg;
    tarvex_dsi_rest_progress_t progress_callback;
    void *progress_callback_arg;
} tarvex_dsi_rest_callbacks_t;

/* ---- the request ---- */

/*
 * method: "GET", "PUT", "POST", "DELETE", ...
 * url:    absolute URL.
 * query:  pairs URL-encoded and appended ("?k=v&k2=v2"); a pair whose value
 *         is NULL is left out.  May be NULL.
 * headers: request headers, sent in order.  A header with an empty value
 *         ("") removes that header from what the client would send by
 *         itself (for example "Transfer-Encoding" = "" makes a body with a
 *         known length go out with "Content-Length" instead of chunked).
 *         A "Content-Length" header fixes the body length.  May be NULL.
 * callbacks: may be NULL (no body either way; the status is then lost).
 *
 * Body length: with the stock block and JSON writers the length is known
 * and sent as "Content-Length"; other writers send chunked unless the
 * caller gives "Content-Length".
 *
 * The body of an answer with status 300 or above is never handed to
 * tarvex_dsi_rest_read_gridftp_op: error pages do not land in a transfer.
 */
TARVEX_API tarvex_result_t tarvex_dsi_rest_request(
    const char *method, const char *url,
    const tarvex_dsi_rest_key_array_t *query,
    const tarvex_dsi_rest_key_array_t *headers,
    const tarvex_dsi_rest_callbacks_t *callbacks);

/* True for transport failures where a new attempt may help: connection
 * refused or reset, time-out (including the idle time-out), a partial
 * transfer, a send or receive error.  False for everything else
 * (TARVEX_SUCCESS, resolve and TLS failures, callback failures, ...). */
TARVEX_API bool tarvex_dsi_rest_error_is_retryable(tarvex_result_t result);

/* CA bundle used to verify servers (NULL: the system's). */
TARVEX_API void tarvex_dsi_rest_set_ca_file(const char *path);

/* Closes this thread's cached connections. */
TARVEX_API void tarvex_dsi_rest_close_connections(void);

/* Number of new connections this process has opened (for benchmarks and
 * tests of connection reuse). */
TARVEX_API uint64_t tarvex_dsi_rest_connections_opened(void);

/* Error types of the REST client's own errors (source module
 * tarvex_i_dsi_rest_module). */
enum {
    TARVEX_DSI_REST_ERROR_TRANSPORT = 1, /* retryable transport failure */
    TARVEX_DSI_REST_ERROR_FATAL = 2,     /* transport failure not worth retrying */
    TARVEX_DSI_REST_ERROR_TIMEOUT = 3,   /* idle time-out (retryable) */
    TARVEX_DSI_REST_ERROR_CALLBACK = 4,  /* a callback failed (not retryable) */
    TARVEX_DSI_REST_ERROR_ARGUMENT = 5, /* bad arguments */
    TARVEX_DSI_REST_ERROR_TOO_LARGE = 6 /* a JSON answer beyond the limits below
                                           (not retryable) */
};

/* ---- limits on JSON answers ----
 *
 * tarvex_dsi_rest_read_json keeps a body until it is whole and then parses
 * it, so without limits a server (or anything posing as one) decides how
 * much memory a session spends: a 66 MB answer cost 488 MB.
 *
 * Size: a body holds at most the JSON limit in bytes, 4 MiB by default (a
 * Box listing page of 300 items is about 90 KB).  It is set by
 * tarvex_dsi_rest_set_json_limit() or, while no call has set one, by the
 * environment variable TARVEX_DSI_REST_JSON_LIMIT: a byte count, optionally
 * followed by K, M or G (KiB, MiB, GiB), such as "16M"; a value that is not
 * such a count is ignored with a warning.  An answer that announces a
 * longer body is refused at its first byte, one that sends more is cut off
 * at the limit: nothing past it is kept.
 *
 * Shape: at most 64 levels of nesting, and at most one value per 16 bytes
 * of the limit, where an object or an array counts as 4 values (parsed, an
 * empty object costs about 230 bytes for its 3 bytes of text; Box's
 * answers hold about one value per 9 bytes, so a real answer of up to
 * about half the limit always fits).  Parsing thus never takes more than
 * about 7 times the limit.
 *
 * An answer beyond any of these fails the request with a
 * TARVEX_DSI_REST_ERROR_TOO_LARGE error (not retryable), whatever its
 * status.  The limit is read at the start of each request. */
#define TARVEX_DSI_REST_JSON_LIMIT_DEFAULT ((size_t)4 << 20)
#define TARVEX_DSI_REST_JSON_MAX_DEPTH 64

/* Sets the JSON limit in bytes for the whole process; 0 goes back to the
 * environment variable, or the default. */
TARVEX_API void tarvex_dsi_rest_set_json_limit(size_t bytes);

/* The JSON limit in force. */
TARVEX_API size_t tarvex_dsi_rest_json_limit(void);

/* ---- stock callbacks ---- */

/* The response record.  The caller names the headers it wants in
 * desired_headers (keys; values NULL before the call); the stock response
 * callback fills response_code and the value of each wanted header
 * (matched case-insensitively; NULL when absent).  Filled values are
 * allocated: release them with tarvex_dsi_rest_response_arg_clear() or
 * free(). The byte counts are filled when the request ends. */
typedef struct tarvex_dsi_rest_response_arg_s {
    int response_code;
    tarvex_dsi_rest_key_array_t desired_headers;
    uint64_t request_bytes_uploaded;
    uint64_t response_bytes_downloaded;
} tarvex_dsi_rest_response_arg_t;

/* Response callback; argument: a tarvex_dsi_rest_response_arg_t. */
TARVEX_API tarvex_result_t tarvex_dsi_rest_response(
    void *response_callback_arg, int response_code, const char *response_status,
    const tarvex_dsi_rest_key_array_t *response_headers);

/* Frees the filled header values and zeroes the code and counts (the keys
 * stay). */
TARVEX_API void tarvex_dsi_rest_response_arg_clear(tarvex_dsi_rest_response_arg_t *arg);

/* Read callback: parses the whole body as JSON into *(json_t **)arg (NULL
 * for an empty body; an unparsable body fails the request with a
 * callback error, except in an answer with status 300 or above, whose
 * status matters more than its page: there it gives NULL).  A body beyond
 * the limits on JSON answers (above) fails the request with a
 * TARVEX_DSI_REST_ERROR_TOO_LARGE error. */
TARVEX_API tarvex_result_t tarvex_dsi_rest_read_json(void *read_callback_arg, void *buffer,
                                                     size_t buffer_length);

/* Write callback: sends the json_t * given as argument, compactly. */
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_json(void *write_callback_arg, char *buffer,
                                                      size_t buffer_length,
                                                      size_t *bytes_written);

/* Write callback: sends a block of memory. */
typedef struct tarvex_dsi_rest_write_block_arg_s {
    void *block_data;
    size_t block_len;
} tarvex_dsi_rest_write_block_arg_t;
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_block(void *write_callback_arg, char *buffer,
                                                       size_t buffer_length,
                                                       size_t *bytes_written);

/* Write callback: a multipart/form-data body.  The boundary is the one in
 * the request's "Content-Type" header ("...; boundary=XYZ").  Each part
 * carries its own headers and its own write callback. */
typedef struct tarvex_dsi_rest_write_part_s {
    tarvex_dsi_rest_key_array_t part_header;
    tarvex_dsi_rest_data_write_t data_write_callback;
    void *data_write_callback_arg;
} tarvex_dsi_rest_write_part_t;

typedef struct tarvex_dsi_rest_multipart_arg_s {
    size_t num_parts;
    tarvex_dsi_rest_write_part_t *parts;
} tarvex_dsi_rest_multipart_arg_t;

TARVEX_API tarvex_result_t tarvex_dsi_rest_write_multipart(void *write_callback_arg,
                                                           char *buffer, size_t buffer_length,
                                                           size_t *bytes_written);

/* Streaming to and from a server operation.
 * write: reads the client's upload from the operation with
 *        tarvex_gridftp_server_register_read (several buffers in flight)
 *        and sends it as the request body, until the operation reports end
 *        of data or `length` bytes (when not -1) have been sent.
 * read:  writes the response body into the operation with
 *        tarvex_gridftp_server_register_write at `offset` onward (several
 *        buffers in flight; the request returns only when every write has
 *        completed).
 * `eof` is set when the stream has ended.  `offset` advances as data is
 * moved, so the record tells how far the transfer got. */
typedef struct tarvex_dsi_rest_gridftp_op_arg_s {
    tarvex_gfs_operation_t op;
    tarvex_off_t offset;
    tarvex_off_t length;
    bool eof;
} tarvex_dsi_rest_gridftp_op_arg_t;

TARVEX_API tarvex_result_t tarvex_dsi_rest_write_gridftp_op(void *write_callback_arg,
                                                            char *buffer, size_t buffer_length,
                                                            size_t *bytes_written);
TARVEX_API tarvex_result_t tarvex_dsi_rest_read_gridftp_op(void *read_callback_arg,
                                                           void *buffer, size_t buffer_length);

/* Progress callback: the argument is a number of milliseconds itself
 * (not a pointer), cast to void *.  The request is abandoned with a
 * TARVEX_DSI_REST_ERROR_TIMEOUT error after that long without a byte moving
 * either way. */
TARVEX_API tarvex_result_t tarvex_dsi_rest_progress_idle_timeout(
    void *progress_callback_arg, uint64_t total_read_expected,
    uint64_t read_so_far, uint64_t total_write_expected, uint64_t written_so_far);

#ifdef __cplusplus
}
#endif

#endif
