/*
 * The Box storage plug-in: records, settings and functions shared between
 * its source files.
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

/* ---- modules and the storage interface ---- */

TARVEX_API extern tarvex_module_descriptor_t tarvex_gridftp_server_box_module;
TARVEX_API extern tarvex_module_descriptor_t tarvex_i_box_common_module;

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

void tarvex_i_TARVEX_BOX_debug_printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
void tarvex_i_TARVEX_BOX_debug_time_printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
void tarvex_i_TARVEX_BOX_debug_fwrite(const void *buffer, size_t size, size_t count);

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

/* ---- settings (process-wide) ---- */

extern int tarvex_i_box_api_per_second;       /* 16; the policy may change it */
extern int tarvex_i_box_upload_per_second;    /* 4 */
extern int tarvex_i_box_max_delay;            /* 25 seconds */
extern int tarvex_i_box_max_retries;          /* 3, kept but not consulted */
extern int tarvex_i_box_progress_timeout_ms;  /* 30000 */
extern int tarvex_i_box_chunked_minimum;      /* 52428800 */
extern const char *tarvex_i_box_retry_path;   /* "$HOME/.tarvex/box-r" */
extern const char *tarvex_i_box_upload_path;  /* "$HOME/.tarvex/box-u" */
/* The policy's "rename_replaces" (default false): RNTO onto an existing
 * file replaces it. */
extern bool tarvex_i_box_rename_replaces;
/* How a store over an existing file replaces it (policy key "replace"). */
typedef enum {
    TARVEX_BOX_REPLACE_DELETE_FIRST, /* delete the old file, then upload */
    TARVEX_BOX_REPLACE_NEW_VERSION   /* upload a new version of the file */
} tarvex_box_replace_t;
extern tarvex_box_replace_t tarvex_i_box_replace; /* delete-first */
/* For a distant Box (policy keys of the same names); the defaults send
 * one request at a time and ask for 300 items a page, as always.
 *   upload_parts_in_flight: parts of an upload session at Box at once, 1-8;
 *   download_streams: ranges of a large download fetched at once, 1-8;
 *   list_page_size: the "limit" of a folder listing's pages, 100-1000. */
extern int tarvex_i_box_upload_parts_in_flight; /* 1 */
extern int tarvex_i_box_download_streams;       /* 1 */
extern int tarvex_i_box_list_page_size;         /* 300 */

/* The two origins of Box's APIs (scheme and host, no trailing slash).
 * Defaults "https://api.box.com" and "https://upload.box.com"; the
 * environment variables TARVEX_BOX_API_BASE and TARVEX_BOX_UPLOAD_BASE, or
 * the policy keys "box_api_base" and "box_upload_base", replace them. */
const char *tarvex_box_api_base(void);
const char *tarvex_box_upload_base(void);
void tarvex_box_set_bases(const char *api_base, const char *upload_base);
/* Whether a request to `url` may carry the user's bearer token: https, or
 * plain http to a loopback address (127.0.0.0/8, [::1], localhost). */
bool tarvex_box_url_may_carry_token(const char *url);
/* Whether `url` is on the API or the upload origin (scheme, host and port):
 * the only ones the user's token is sent to. */
bool tarvex_box_url_on_box_origin(const char *url);

/* ---- error object ---- */

extern const tarvex_object_type_t TARVEX_BOX_ERROR_TYPE_DEFINITION;
#define TARVEX_BOX_ERROR_TYPE (&TARVEX_BOX_ERROR_TYPE_DEFINITION)

tarvex_object_t *tarvex_box_error_construct(tarvex_module_descriptor_t *module,
                                            tarvex_object_t *cause,
                                            const tarvex_dsi_rest_key_array_t *info);
tarvex_object_t *tarvex_box_error_initialize(tarvex_object_t *object,
                                             tarvex_module_descriptor_t *module,
                                             tarvex_object_t *cause,
                                             const tarvex_dsi_rest_key_array_t *info);
const char *tarvex_box_error_get_info(tarvex_object_t *error, const char *key);
void tarvex_box_error_add_info(tarvex_object_t *error,
                               const tarvex_dsi_rest_key_array_t *info);

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

void tarvex_i_box_retry_state_create(const char *name, int per_second,
                                     tarvex_box_retry_t *retry);
void tarvex_i_box_retry_state_destroy(tarvex_box_retry_t *retry);
tarvex_result_t tarvex_i_box_retry_state_lock(tarvex_box_retry_t *retry, bool wait);
tarvex_result_t tarvex_i_box_retry_state_unlock(tarvex_box_retry_t *retry);
void tarvex_i_box_retry_delay(uint64_t retry_after, tarvex_box_retry_t *retry);
/* How the wait for a "Retry-After" (or a commit's back-off) is taken:
 * sleep(3) here; tests put a recorder in its place. */
extern void (*tarvex_i_box_wait)(unsigned seconds);

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

/* ---- storage-interface entry points ---- */

void tarvex_i_box_start(tarvex_gfs_operation_t op,
                        tarvex_gfs_session_info_t *session_info);
void tarvex_i_box_destroy(void *user_arg);
void tarvex_i_box_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *stat_info,
                       void *user_arg);
void tarvex_i_box_command(tarvex_gfs_operation_t op,
                          tarvex_gfs_command_info_t *cmd_info, void *user_arg);
void tarvex_i_box_send(tarvex_gfs_operation_t op,
                       tarvex_gfs_transfer_info_t *transfer_info, void *user_arg);
void tarvex_i_box_recv(tarvex_gfs_operation_t op,
                       tarvex_gfs_transfer_info_t *transfer_info, void *user_arg);

/* ---- policy, credential, path variables ---- */

tarvex_result_t tarvex_box_config_parse_json(const char *text, int *rate);
/* The policy's check (config_check.cpp), which the module's activation
 * registers for the server under "box:config"; not exported. */
extern const tarvex_gfs_config_checker_t tarvex_i_box_config_checker
    __attribute__((visibility("hidden")));
tarvex_result_t tarvex_box_token_refresh(tarvex_box_session_t *box,
                                         tarvex_gfs_operation_t op);
tarvex_result_t tarvex_box_get_kelm_token(tarvex_box_session_t *box,
                                          tarvex_gfs_operation_t op);
tarvex_result_t tarvex_i_box_parse_date(const char *text, time_t *time);
tarvex_result_t tarvex_box_evaluate_path(const char *template_path, char **result);

/* ---- Box answers ---- */

tarvex_result_t tarvex_box_translate_response(
    const tarvex_dsi_rest_response_arg_t *response, json_t *json, bool *retry,
    unsigned long *retry_after);

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

tarvex_result_t tarvex_box_request(tarvex_box_session_t *box,
                                   tarvex_box_request_t *request);
/* Releases the outputs (header values, document). */
void tarvex_box_request_release(tarvex_box_request_t *request);
/* The value of a wanted response header ("Retry-After" or one named in
 * wanted_headers, compared without case) after the call, or NULL. */
const char *tarvex_box_request_header(const tarvex_box_request_t *request,
                                      const char *name);

/* ---- item record, caches, listing, resolution, stat ---- */

tarvex_result_t tarvex_box_object_info_parse(json_t *json, tarvex_box_path_info_t *info);
tarvex_box_path_info_t *tarvex_box_path_info_copy(const tarvex_box_path_info_t *info);
void tarvex_box_path_info_free(tarvex_box_path_info_t *info);
tarvex_result_t tarvex_box_info_to_stat(tarvex_box_session_t *box,
                                        const tarvex_box_path_info_t *info,
                                        tarvex_gridftp_server_control_stat_t *stat_out);
uint32_t tarvex_box_hash(const char *text);

tarvex_result_t tarvex_box_path_cache_init(tarvex_hashtable_t *cache);
tarvex_result_t tarvex_box_path_cache_update(tarvex_hashtable_t *cache,
                                             const tarvex_box_path_info_t *info,
                                             const char *base_path);
tarvex_box_path_info_t *tarvex_box_path_cache_query(tarvex_hashtable_t *cache,
                                                    const char *path);
tarvex_result_t tarvex_box_path_cache_remove(tarvex_hashtable_t *cache,
                                             const char *path);

tarvex_result_t tarvex_box_upload_state_init(tarvex_hashtable_t *table);
tarvex_result_t tarvex_box_upload_state_update(tarvex_hashtable_t *table,
                                               tarvex_box_upload_session_t *upload,
                                               const char *path);
tarvex_box_upload_session_t *tarvex_box_upload_state_query(tarvex_hashtable_t *table,
                                                           const char *path);
tarvex_result_t tarvex_box_upload_state_remove(tarvex_hashtable_t *table,
                                               const char *path);
void tarvex_box_upload_session_free(void *info);

typedef tarvex_result_t (*tarvex_box_list_entry_cb_t)(tarvex_box_session_t *box,
                                                      const char *base_path,
                                                      tarvex_box_path_info_t *path_info,
                                                      void *callback_arg);

tarvex_result_t tarvex_box_get_folder_items(tarvex_box_session_t *box,
                                            const char *folder_id, const char *path,
                                            tarvex_box_list_entry_cb_t callback,
                                            void *callback_arg);
tarvex_result_t tarvex_box_get_file_info(tarvex_box_session_t *box,
                                         const char *file_id, const char *parent_path,
                                         tarvex_box_list_entry_cb_t callback,
                                         void *callback_arg);

tarvex_result_t tarvex_box_path_resolve(tarvex_box_session_t *box, const char *path,
                                        tarvex_box_path_info_t **entry_out,
                                        tarvex_box_path_info_t **parent_out);

typedef struct tarvex_box_stat_state_s {
    tarvex_gfs_operation_t op;
    tarvex_gfs_stat_info_t *stat_info;
    tarvex_gridftp_server_control_stat_t *stat_array; /* 100 entries */
    int stat_count;
} tarvex_box_stat_state_t;

void tarvex_i_box_stat_single(tarvex_gfs_operation_t op,
                              tarvex_gfs_stat_info_t *stat_info,
                              tarvex_box_session_t *box);
void tarvex_i_box_stat_multi(tarvex_gfs_operation_t op,
                             tarvex_gfs_stat_info_t *stat_info,
                             tarvex_box_session_t *box);
tarvex_result_t tarvex_box_stat_entry(tarvex_box_session_t *box, const char *base_path,
                                      tarvex_box_path_info_t *path_info,
                                      void *callback_arg);

/* ---- commands ---- */

/* The handlers of the command operation; each reports its completion once. */
void tarvex_i_box_mkdir(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                        tarvex_box_session_t *box);
void tarvex_i_box_delete(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                         tarvex_box_session_t *box);
void tarvex_i_box_rename(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                         tarvex_box_session_t *box);
void tarvex_i_box_cksm(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *cmd_info,
                       tarvex_box_session_t *box);

/*
 * Deletes the Box item of a resolved record with one DELETE: `type` is the
 * command type (TARVEX_GFS_CMD_DELE needs a file, TARVEX_GFS_CMD_RMD a
 * folder, TARVEX_GFS_CMD_SITE_RDEL a folder and deletes its tree).  Once a
 * request has been sent the record's cache entry may have been removed
 * (and the record freed): the caller must not use `path_info` afterwards.
 * A refusal by Box is never retried.
 */
tarvex_result_t tarvex_i_box_delete_object(tarvex_box_session_t *box,
                                           tarvex_box_path_info_t *path_info, int type);

/* Stores one string property in the item's global "properties" metadata
 * (created by POST, patched by PUT once `has_metadata` is set; sets it). */
tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *path_info,
                                          const char *key, const char *value);

/* The progress and digest state of one checksum download. */
typedef struct tarvex_i_box_cksm_state_s {
    tarvex_gfs_operation_t op;
    int response_freq;  /* seconds between progress replies */
    int response_due;   /* when the next one is due; 0: none */
    tarvex_off_t total_bytes;
    MD5_CTX md5_ctx;
    SHA_CTX sha_ctx;
} tarvex_i_box_cksm_state_t;

/* The checksum download's data callback (argument: the state). */
tarvex_result_t tarvex_i_box_cksm_cb(void *callback_arg, void *buffer,
                                     size_t buffer_length);

/* ---- transfers ---- */

tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op,
                                        tarvex_gfs_transfer_info_t *info,
                                        tarvex_box_session_t *box,
                                        tarvex_box_path_info_t *parent);
tarvex_result_t tarvex_i_box_recv_chunked(tarvex_gfs_operation_t op,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *parent);
tarvex_result_t tarvex_i_box_create_upload_session(tarvex_box_session_t *box,
                                                   tarvex_gfs_transfer_info_t *info,
                                                   tarvex_box_path_info_t *parent,
                                                   tarvex_box_upload_session_t **upload);
tarvex_result_t tarvex_box_upload_session_parse(json_t *json,
                                                tarvex_box_upload_session_t *info);
tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op,
                                          tarvex_box_session_t *box,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_upload_session_t *upload);
tarvex_result_t tarvex_i_box_commit_upload(tarvex_gfs_operation_t op,
                                           tarvex_box_session_t *box,
                                           tarvex_gfs_transfer_info_t *info,
                                           tarvex_box_path_info_t *parent,
                                           tarvex_box_upload_session_t *upload);

/* ---- the upload lock: a per-user state file shared between processes ---- */

/* The file's layout (4440 bytes, host byte order). */
struct tarvex_box_upload_state_shared_s {
    char id[128];
    int32_t num_parts;
    uint64_t part_size;
    uint64_t total_size;
    MD5_CTX md5_ctx;
    SHA_CTX sha1_ctx;
    char name[4096];
    uint32_t part_array[]; /* no room for it in the file */
};

typedef struct tarvex_box_upload_state_s {
    bool is;
    int fd; /* -1: private memory */
    struct tarvex_box_upload_state_shared_s *shared;
} tarvex_box_upload_state_t;

void tarvex_i_box_upload_state_create(const char *name,
                                      tarvex_box_upload_state_t *upload_state);
tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t *upload_state,
                                               bool blocking);
tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t *upload_state);
void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t *upload_state);

/* An FTP error for operations that arrive with a later release. */
tarvex_result_t tarvex_box_not_implemented_yet(const char *what);

#ifdef __cplusplus
}
#endif

#endif
