/*
 * The Box storage plug-in: the records its source files share (session,
 * item, pacing state, upload session, request), its errors and its log.
 * Each source file's functions are declared in a header named after it.
 */
#ifndef TARVEX_BOX_COMMON_H
#define TARVEX_BOX_COMMON_H

#include <jansson.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <stdarg.h>
#include <time.h>

#include "tarvex_common.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_gridftp_server.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- debug log ---- */

enum {
    TARVEX_BOX_TRACE = 1,
    TARVEX_BOX_DEBUG = 2,
    TARVEX_BOX_INFO = 4,
    TARVEX_BOX_WARN = 8,
    TARVEX_BOX_ERROR = 16,
    TARVEX_BOX_ALL = 31
};

extern tarvex_debug_handle_t tarvex_i_TARVEX_BOX_debug_handle;
extern const char *tarvex_i_box_debug_level_names[17];

/* One traced line at `level` by `function`: the prefix
 * "box: %5s: %li: %s: " then the text.  Costs one bit test when off. */
void tarvex_box_debug_line(unsigned level, const char *function,
                           const char *format, ...)
    __attribute__((format(printf, 3, 4)));
#define TARVEX_BOX_LOG_AS(level, function, ...)                                 \
    do {                                                                        \
        if (tarvex_i_TARVEX_BOX_debug_handle.levels & (level))                  \
            tarvex_box_debug_line((level), (function), __VA_ARGS__);            \
    } while (0)
#define TARVEX_BOX_LOG(level, ...) TARVEX_BOX_LOG_AS(level, __func__, __VA_ARGS__)
#define TARVEX_BOX_TRACE_ENTER() TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "enter\n")
#define TARVEX_BOX_TRACE_EXIT() TARVEX_BOX_LOG(TARVEX_BOX_TRACE, "exit\n")
/* "exit: result=TARVEX_SUCCESS\n" at TRACE, or
 * "exit: result=%#x message=%s\n" at ERROR with the printed chain. */
void tarvex_box_trace_exit_result(const char *function, tarvex_result_t result);
#define TARVEX_BOX_TRACE_RESULT(result) tarvex_box_trace_exit_result(__func__, (result))

/* ---- errors ---- */

/* The source name that generic errors record: a file may name itself by
 * defining TARVEX_BOX_SOURCE (for example "get_folder_items") before
 * including this header; otherwise it is the compiler's file name. */
#ifndef TARVEX_BOX_SOURCE
#define TARVEX_BOX_SOURCE __FILE__
#endif
/* Generic error of the plug-in with the caller's source, function, line. */
#define TARVEX_BOX_GENERIC_ERROR(...)                                            \
    tarvex_error_put(tarvex_error_construct_error(                               \
        NULL, NULL, TARVEX_GFS_ERROR_GENERIC, TARVEX_BOX_SOURCE, __func__,       \
        __LINE__, __VA_ARGS__))
/* The out-of-memory system error. */
#define TARVEX_BOX_MALLOC_ERROR() TARVEX_GFS_MALLOC_ERROR(NULL, errno)

/* ---- item record ---- */

typedef enum {
    TARVEX_BOX_FOLDER = 1,
    TARVEX_BOX_FILE = 2,
    TARVEX_BOX_UNKNOWN = 3
} tarvex_box_item_type_t;

typedef struct tarvex_box_path_info_s {
    char *name;
    char *id;
    char *parent_id;
    int type;
    uint64_t size;
    time_t modtime;
    char *md5;
    char *sha1;
    bool listed;
    bool has_metadata;
    bool freeme;
    /* When the record entered the path cache and when the folder was last
     * listed, on the cache's clock (session_journal.h): what a policy's
     * "cache_ttl_seconds" measures. */
    int64_t cached_at;
    int64_t listed_at;
} tarvex_box_path_info_t;

/* ---- pacing ---- */

struct tarvex_box_retry_shared_s {
    int64_t not_until;
    struct {
        int64_t tv_sec;
        int64_t tv_nsec;
    } last;
};

/* A pacer that takes a handle's slots in place of its file (pacing.h). */
struct tarvex_box_pacing_s;

typedef struct tarvex_box_retry_s {
    bool is;
    int fd;
    unsigned delay; /* microseconds */
    struct tarvex_box_retry_shared_s *shared;
    /* The shared store's pacer, owned by the handle; NULL: the file alone. */
    struct tarvex_box_pacing_s *store;
} tarvex_box_retry_t;

/* ---- session ---- */

typedef struct tarvex_box_session_s {
    char *username;
    char *user_id;
    uint64_t max_upload;
    char *access_token;
    time_t access_token_exp;
    tarvex_hashtable_t cache;
    tarvex_hashtable_t upload_state;
    tarvex_box_retry_t user_retry;
    tarvex_box_retry_t user_upload_retry;
    /* What keeps the path cache current (session_journal.h). */
    struct tarvex_box_journal_s *journal;
} tarvex_box_session_t;

/* ---- upload session ---- */

typedef struct tarvex_box_upload_session_s {
    char *id;
    char *name;
    int num_parts;
    uint64_t part_size;
    uint64_t total_size;
    json_t *part_array;
    MD5_CTX md5_ctx;
    SHA_CTX sha1_ctx;
    /* The session makes a new version of an existing file (policy
     * "replace": "new-version"), not a new file. */
    bool new_version;
} tarvex_box_upload_session_t;

/*
 * One Box call made by the request conventions: bearer authorisation from
 * the session's token, "Retry-After" always the first wanted header, JSON
 * in and out through the REST client's stock callbacks, the idle
 * time-out, pacing before each attempt, a bounded number of attempts, and
 * translation of error answers.  Fill the inputs (zero the rest), call
 * tarvex_box_request(), read the outputs, then tarvex_box_request_release().
 *
 * Each attempt: clear the outputs, trace "API CALL!" at DEBUG, renew the
 * token (refresh_token only), pace (tarvex_i_box_retry_delay with the last
 * translated "Retry-After" seconds and `retry`; skipped with no_delay),
 * prepare it (before_attempt, when set), send.  The token goes with it
 * only to the API and upload origins, never with a signed_url.
 *   - transport failure: retried when the REST client calls it retryable;
 *   - status below 400 (or == expected_status when that is set, or one of
 *     success_statuses when those are set; see there): success;
 *   - anything else: tarvex_box_translate_response() with the body document
 *     (none with translate_without_body or a read_callback); a success from
 *     it is a success (so unlisted 4xx pass, and a status below 400 other
 *     than expected_status becomes 451 "TOO_BUSY" without a body), a
 *     failure is retried when it says so, never when refusal_is_final and
 *     the status was 400 or more.
 * An answer that would be taken goes to check_answer first, when set: a
 * failure from it fails the attempt like a translated one, with its own
 * word on retrying and on the seconds to wait before the next attempt.
 * On failure the document is released; after `attempts` attempts the last
 * failure is returned.  On success `json` holds the answer's document (when
 * read as JSON) and `response` the status and wanted header values.
 * tarvex_box_request() releases earlier outputs itself, so one record may
 * be reused for several calls.
 */
typedef struct tarvex_box_request_s {
    /* inputs */
    const char *method;
    const char *url;
    const tarvex_dsi_rest_key_array_t *query;   /* may be NULL */
    const tarvex_dsi_rest_key_value_t *headers; /* sent after "Authorization" */
    size_t header_count;
    json_t *json_body;          /* sent with "Content-Type" "application/json;" */
    tarvex_dsi_rest_data_write_t write_callback; /* any other body */
    void *write_callback_arg;
    tarvex_dsi_rest_data_read_t read_callback;   /* NULL: the body as JSON into `json` */
    void *read_callback_arg;
    /* Called just before each attempt is sent, with before_attempt_arg: it
     * may change that attempt's inputs (headers, the read callback's
     * argument), so that a retry can resume a stream where the last attempt
     * left it.  A failure ends the call with that result, unsent. */
    tarvex_result_t (*before_attempt)(struct tarvex_box_request_s *request, void *arg);
    void *before_attempt_arg;
    const char *const *wanted_headers;          /* wanted after "Retry-After" */
    size_t wanted_header_count;
    int attempts;                /* attempt budget, at least 1 */
    tarvex_box_retry_t *retry;   /* pacing state; NULL: Retry-After sleep only */
    bool no_delay;               /* take no pacing delay at all */
    tarvex_gfs_operation_t op;   /* with refresh_token: renew before each attempt */
    bool refresh_token;
    int progress_timeout_ms;     /* 0: tarvex_i_box_progress_timeout_ms */
    bool translate_without_body; /* translate from the status alone */
    /* Non-NULL: only these statuses are successes (expected_status is then
     * unused); any other fails, with the translation's error where it
     * makes one, else a 451 naming the status, never retried. */
    const int *success_statuses;
    size_t success_status_count;
    /* The URL carries its own authorisation (a download link Box answered
     * with): the token never goes with it.  Otherwise it goes only to the
     * API and upload origins. */
    bool signed_url;
    bool refusal_is_final;       /* a status of 400 or more is never retried */
    int expected_status;         /* non-zero: only this status is a plain success */
    const char *caller;          /* the operation whose attempts these are: its
                                  * name leads the "API CALL!" lines */
    /* Judges an answer the loop would take (NULL: every one is).  An error
     * fails the attempt; `*retry` (false on entry) says whether another
     * may help, and `*retry_after`, the seconds the next attempt waits
     * first, may be changed. */
    tarvex_result_t (*check_answer)(struct tarvex_box_request_s *request, bool *retry,
                                    unsigned long *retry_after);
    /* Asked before each attempt and while one runs (at least once a
     * second): true ends the call at once with an error that is not
     * retried.  For a request made on a thread of its own for a transfer
     * that may end without it (NULL: it runs its course). */
    bool (*abandon)(void *abandon_arg);
    void *abandon_arg;
    /* Non-NULL: the token sent instead of the session's, for a thread that
     * keeps its own copy so that another thread's renewal cannot free the
     * text under it. */
    const char *access_token;
    /* outputs */
    tarvex_dsi_rest_response_arg_t response; /* code and wanted header values */
    json_t *json;                            /* response document, or NULL */
    int attempts_made;
    /* Attempts that got no answer: a transport failure, which may have come
     * after Box received the whole request and acted on it. */
    int answers_lost;
} tarvex_box_request_t;

#ifdef __cplusplus
}
#endif

#endif
