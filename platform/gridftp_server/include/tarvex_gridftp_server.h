/*
 * tarvex_gridftp_server: the storage-plug-in interface of the server.
 *
 * A storage plug-in named N is a shared library libtarvex_gridftp_server_N.so
 * with the module descriptor tarvex_gridftp_server_N_module; its activation
 * registers a tarvex_gfs_storage_iface_t under N in tarvex_i_gfs_dsi_registry.
 *
 * The server calls the table's functions with an operation handle.  Each
 * call is answered through the matching tarvex_gridftp_server_finished_*()
 * call exactly once (for stat, any number of finished_stat_partial calls
 * may come first; for commands, any number of intermediate_command calls).
 * An operation is backed by a provider table supplied by whoever created it
 * (the server's FTP session, or a test driver); a plug-in cannot tell them
 * apart.
 */
#ifndef TARVEX_GRIDFTP_SERVER_H
#define TARVEX_GRIDFTP_SERVER_H

#include <stdarg.h>
#include <time.h>

#include "tarvex_common.h"

#ifdef __cplusplus
extern "C" {
#endif

TARVEX_API extern tarvex_module_descriptor_t tarvex_i_gfs_module;

/* ---- the storage-interface registry ---- */

TARVEX_API extern tarvex_extension_registry_t tarvex_i_gfs_dsi_registry;

/* Loads the plug-in named `name` (libtarvex_gridftp_server_NAME.so through
 * the extension search path) and returns its table, or NULL with a
 * message in tarvex_extension_last_error(). */
TARVEX_API const struct tarvex_gfs_storage_iface_s *tarvex_gfs_dsi_load(const char *name);
/* Deactivates a plug-in loaded with tarvex_gfs_dsi_load(). */
TARVEX_API void tarvex_gfs_dsi_unload(const char *name);

/* ---- checking a plug-in's configuration data ----
 *
 * The server hands a plug-in configuration data by key ("config", ...);
 * what the data must say only the plug-in knows.  A plug-in that wants its
 * data checked when the server starts, at tarvex-gridftp-server
 * --check-config and at SIGHUP (rather than at the first login) registers
 * a checker for the key: its activation adds a tarvex_gfs_config_checker_t
 * under "N:KEY" (plug-in name, a colon, the key) to
 * tarvex_i_gfs_config_check_registry with tarvex_extension_registry_add(),
 * its deactivation removes it.  The server runs the checks in a process of
 * its own that ends after them: a checker may use the plug-in's own parser
 * even where that parser sets process-wide values. */

/* Where the fault in a text lies, as far as the checker knows. */
typedef struct tarvex_gfs_config_place_s {
    int line;      /* from 1; 0: not known */
    int column;    /* from 1; 0: not known */
    char key[128]; /* the setting at fault; "": the text as a whole */
} tarvex_gfs_config_place_t;

/* TARVEX_SUCCESS for a text the plug-in would take, else an error whose
 * message says what is wrong (no secret of the text in it), with `place`
 * (zeroed by the caller) filled in as far as known. */
typedef tarvex_result_t (*tarvex_gfs_config_check_func_t)(
    const char *text, tarvex_gfs_config_place_t *place);

typedef struct tarvex_gfs_config_checker_s {
    const char *key; /* the configuration data key, e.g. "config" */
    tarvex_gfs_config_check_func_t check;
} tarvex_gfs_config_checker_t;

TARVEX_API extern tarvex_extension_registry_t tarvex_i_gfs_config_check_registry;

/* The checker the plug-in named `dsi` registered for `key`, or NULL. */
TARVEX_API const tarvex_gfs_config_checker_t *tarvex_gfs_config_checker_find(const char *dsi,
                                                                             const char *key);

/* ---- descriptor flags ---- */

typedef enum {
    /* the plug-in moves the data itself (register_read/register_write) */
    TARVEX_GFS_DSI_DESCRIPTOR_SENDER = 1 << 0,
    /* its functions block the calling thread until they are done */
    TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING = 1 << 1,
    /* realpath_func is set and resolves paths */
    TARVEX_GFS_DSI_DESCRIPTOR_HAS_REALPATH = 1 << 2,
    /* it requires data in offset order, one buffer after another */
    TARVEX_GFS_DSI_DESCRIPTOR_REQUIRES_ORDERED_DATA = 1 << 3,
    /* it sets its own error responses (the server adds no text of its own) */
    TARVEX_GFS_DSI_DESCRIPTOR_SETS_ERROR_RESPONSES = 1 << 4,
    /* SITE RDEL is passed to it instead of the server walking the tree */
    TARVEX_GFS_DSI_DESCRIPTOR_RECURSIVE_DELETE = 1 << 5,
    /* a session's functions must never run concurrently: the server calls
     * at most one of them at a time per session (a transfer in progress
     * makes other commands wait or be refused, never overlap) */
    TARVEX_GFS_DSI_DESCRIPTOR_SERIAL_OPERATIONS = 1 << 6
} tarvex_gfs_dsi_descriptor_t;

/* ---- requests handed to the plug-in ---- */

typedef struct tarvex_gfs_operation_s *tarvex_gfs_operation_t;

typedef struct tarvex_gfs_session_info_s {
    void *del_cred;        /* delegated credential, unused: NULL */
    bool free_cred;
    bool map_user;
    char *username;        /* the login name */
    char *password;        /* NULL: passwords are checked by the server */
    char *subject;         /* TLS client subject, or NULL */
    char *cookie;
    char *host_id;         /* "host:port" of the client */
} tarvex_gfs_session_info_t;

typedef struct tarvex_gfs_transfer_info_s {
    char *pathname;        /* absolute, normalised */
    char *module_name;
    char *module_args;
    char *list_type;
    tarvex_off_t partial_offset; /* REST offset, or 0 */
    tarvex_off_t partial_length; /* -1: to the end */
    void *range_list;
    bool truncate;         /* STOR: true; restarted STOR (REST): false */
    tarvex_off_t alloc_size; /* ALLO size announced by the client, or 0 */
    int nstreams;
    int node_ndx;
    int node_count;
    int stripe_count;
    void *op_info;
} tarvex_gfs_transfer_info_t;

typedef struct tarvex_gfs_stat_info_s {
    bool file_only;        /* true: the item itself; false: a listing */
    bool internal;
    char *pathname;
    bool use_symlink_info;
    bool include_path_stat;
    void *op_info;
} tarvex_gfs_stat_info_t;

typedef enum {
    TARVEX_GFS_CMD_MKD = 1,
    TARVEX_GFS_CMD_RMD,
    TARVEX_GFS_CMD_DELE,
    TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT,
    TARVEX_GFS_CMD_SITE_RDEL,
    TARVEX_GFS_CMD_RNTO,
    TARVEX_GFS_CMD_RNFR,
    TARVEX_GFS_CMD_CKSM,
    TARVEX_GFS_CMD_SITE_CHMOD,
    TARVEX_GFS_CMD_SITE_DSI,
    TARVEX_GFS_CMD_SITE_SETNETSTACK,
    TARVEX_GFS_CMD_SITE_SETDISKSTACK,
    TARVEX_GFS_CMD_SITE_CLIENTINFO,
    TARVEX_GFS_CMD_DCSC,
    TARVEX_GFS_CMD_SITE_CHGRP,
    TARVEX_GFS_CMD_SITE_UTIME,
    TARVEX_GFS_CMD_SITE_SYMLINKFROM,
    TARVEX_GFS_CMD_SITE_SYMLINK,
    TARVEX_GFS_CMD_HTTP_PUT,
    TARVEX_GFS_CMD_HTTP_GET,
    TARVEX_GFS_CMD_HTTP_CONFIG,
    TARVEX_GFS_CMD_TRNC,
    TARVEX_GFS_CMD_SITE_TASKID,
    TARVEX_GFS_CMD_SITE_RESTRICT = 3072,
    TARVEX_GFS_CMD_SITE_CHROOT,
    TARVEX_GFS_CMD_SITE_SHARING,
    TARVEX_GFS_CMD_UPAS,
    TARVEX_GFS_CMD_UPRT,
    TARVEX_GFS_CMD_STORATTR,
    TARVEX_GFS_CMD_WHOAMI,
    TARVEX_GFS_MIN_CUSTOM_CMD = 4096
} tarvex_gfs_command_type_t;

typedef struct tarvex_gfs_command_info_s {
    tarvex_gfs_command_type_t command;
    char *pathname;          /* absolute, normalised; RNTO: the target */
    tarvex_off_t cksm_offset;
    tarvex_off_t cksm_length; /* -1: to the end */
    char *cksm_alg;
    int chmod_mode;
    char *from_pathname;     /* RNTO: the source */
    char *authz_assert;
    char *chgrp_group;
    time_t utime_time;
    void *op_info;
} tarvex_gfs_command_info_t;

/* ---- stat entries ---- */

typedef enum {
    TARVEX_GRIDFTP_SERVER_CONTROL_STAT_SUCCESS = 0,
    TARVEX_GRIDFTP_SERVER_CONTROL_STAT_FAILURE = 1
} tarvex_gridftp_server_control_stat_error_t;

typedef struct tarvex_gridftp_server_control_stat_s {
    int mode;
    int nlink;
    char *name;
    char *symlink_target;
    uid_t uid;
    gid_t gid;
    tarvex_off_t size;
    time_t atime;
    time_t ctime;
    time_t mtime;
    int dev;
    int ino;
    int link_mode;
    tarvex_gridftp_server_control_stat_error_t error;
} tarvex_gridftp_server_control_stat_t;

/* ---- the storage-interface table ---- */

typedef void (*tarvex_gfs_init_t)(tarvex_gfs_operation_t op,
                                  tarvex_gfs_session_info_t *session_info);
typedef void (*tarvex_gfs_destroy_t)(void *user_arg);
typedef void (*tarvex_gfs_transfer_t)(tarvex_gfs_operation_t op,
                                      tarvex_gfs_transfer_info_t *transfer_info,
                                      void *user_arg);
typedef void (*tarvex_gfs_trev_t)(void *event_info, void *user_arg);
typedef void (*tarvex_gfs_data_t)(tarvex_gfs_operation_t op, void *data_info,
                                  void *user_arg);
typedef void (*tarvex_gfs_data_destroy_t)(void *data_arg, void *user_arg);
typedef void (*tarvex_gfs_command_t)(tarvex_gfs_operation_t op,
                                     tarvex_gfs_command_info_t *cmd_info,
                                     void *user_arg);
typedef void (*tarvex_gfs_stat_t)(tarvex_gfs_operation_t op,
                                  tarvex_gfs_stat_info_t *stat_info,
                                  void *user_arg);
typedef void (*tarvex_gfs_set_cred_t)(tarvex_gfs_operation_t op,
                                      tarvex_gfs_session_info_t *session_info,
                                      void *user_arg);
typedef void (*tarvex_gfs_buffer_send_t)(tarvex_gfs_operation_t op,
                                         tarvex_byte_t *buffer,
                                         tarvex_size_t buffer_len, void *user_arg);
typedef tarvex_result_t (*tarvex_gfs_realpath_t)(const char *in_path,
                                                 char **out_realpath,
                                                 void *user_arg);

typedef struct tarvex_gfs_storage_iface_s {
    int descriptor;
    tarvex_gfs_init_t init_func;
    tarvex_gfs_destroy_t destroy_func;
    tarvex_gfs_transfer_t list_func;
    tarvex_gfs_transfer_t send_func;
    tarvex_gfs_transfer_t recv_func;
    tarvex_gfs_trev_t trev_func;
    tarvex_gfs_data_t active_func;
    tarvex_gfs_data_t passive_func;
    tarvex_gfs_data_destroy_t data_destroy_func;
    tarvex_gfs_command_t command_func;
    tarvex_gfs_stat_t stat_func;
    tarvex_gfs_set_cred_t set_cred_func;
    tarvex_gfs_buffer_send_t buffer_send_func;
    tarvex_gfs_realpath_t realpath_func;
} tarvex_gfs_storage_iface_t;

/* ---- what a plug-in calls on an operation ---- */

/* Completion of a registered read: `nbytes` bytes landed at `buffer`
 * (the client's data at `offset`); `eof` is true when the client's data
 * ended.  A failed `result` ends the transfer. */
typedef void (*tarvex_gridftp_server_read_cb_t)(
    tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *buffer,
    tarvex_size_t nbytes, tarvex_off_t offset, bool eof, void *user_arg);

/* Completion of a registered write: the buffer may be reused. */
typedef void (*tarvex_gridftp_server_write_cb_t)(
    tarvex_gfs_operation_t op, tarvex_result_t result, tarvex_byte_t *buffer,
    tarvex_size_t nbytes, void *user_arg);

/* Session start: `session_arg` is handed back to every later call as
 * user_arg; `username` and `home_dir` may be NULL (the server keeps the
 * login name; "/" is the default home). */
TARVEX_API void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op,
                                                             tarvex_result_t result,
                                                             void *session_arg,
                                                             char *username, char *home_dir);

/* The final answer of a stat: the entries (copied by the callee during the
 * call) and their number.  On failure the entries are ignored. */
TARVEX_API void tarvex_gridftp_server_finished_stat(
    tarvex_gfs_operation_t op, tarvex_result_t result,
    tarvex_gridftp_server_control_stat_t *stat_array, int stat_count);
/* A batch of a listing sent before the final answer. */
TARVEX_API void tarvex_gridftp_server_finished_stat_partial(
    tarvex_gfs_operation_t op, tarvex_result_t result,
    tarvex_gridftp_server_control_stat_t *stat_array, int stat_count);

/* The final answer of a command.  `command_response` (may be NULL) is the
 * reply text: MKD's path, CKSM's checksum, ... */
TARVEX_API void tarvex_gridftp_server_finished_command(tarvex_gfs_operation_t op,
                                                       tarvex_result_t result,
                                                       char *command_response);
/* A progress reply of a command still running (CKSM's bytes so far). */
TARVEX_API void tarvex_gridftp_server_intermediate_command(tarvex_gfs_operation_t op,
                                                           tarvex_result_t result,
                                                           char *command_response);

/* Transfers: begin once (opens the data channel), finish once. */
TARVEX_API void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op,
                                                     int event_mask, void *event_arg);
TARVEX_API void tarvex_gridftp_server_finished_transfer(tarvex_gfs_operation_t op,
                                                        tarvex_result_t result);

/* Send: the next range of the file to send; length -1 is to the end and 0
 * means nothing more is wanted. */
TARVEX_API void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op,
                                                     tarvex_off_t *offset,
                                                     tarvex_off_t *length);
/* Receive: where the client's data goes in the file (offset, length -1 to
 * the end). */
TARVEX_API void tarvex_gridftp_server_get_write_range(tarvex_gfs_operation_t op,
                                                      tarvex_off_t *offset,
                                                      tarvex_off_t *length);

/* Receive: asks for up to `length` bytes of the client's data into
 * `buffer`; `callback` runs on another thread when they are there. */
TARVEX_API tarvex_result_t tarvex_gridftp_server_register_read(
    tarvex_gfs_operation_t op, tarvex_byte_t *buffer, tarvex_size_t length,
    tarvex_gridftp_server_read_cb_t callback, void *user_arg);
/* Send: hands `length` bytes at file offset `offset` to the client;
 * `callback` runs (possibly on another thread) when the buffer may be
 * reused.  stripe_ndx: -1. */
TARVEX_API tarvex_result_t tarvex_gridftp_server_register_write(
    tarvex_gfs_operation_t op, tarvex_byte_t *buffer, tarvex_size_t length,
    tarvex_off_t offset, int stripe_ndx,
    tarvex_gridftp_server_write_cb_t callback, void *user_arg);

TARVEX_API void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op,
                                                         tarvex_off_t length);
TARVEX_API void tarvex_gridftp_server_update_bytes_written(tarvex_gfs_operation_t op,
                                                           tarvex_off_t offset,
                                                           tarvex_off_t length);

/* Configuration data of the session by key ("config", "creds",
 * "renew-creds", ...): *data becomes an allocated text the caller frees,
 * or NULL when there is none. */
TARVEX_API tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op,
                                                                 const char *key,
                                                                 char **data);

/* "ALG:PRIORITY;..." list of the checksums the plug-in computes. */
TARVEX_API void tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op,
                                                           const char *cksm_str);
/* Seconds between progress replies the client wants (0: none). */
TARVEX_API void tarvex_gridftp_server_get_update_interval(tarvex_gfs_operation_t op,
                                                          int *interval);
/* Modification time the client asked the stored file to get, or -1. */
TARVEX_API tarvex_result_t tarvex_gridftp_server_get_recv_modification_time(
    tarvex_gfs_operation_t op, time_t *modtime);
TARVEX_API void tarvex_gridftp_server_get_block_size(tarvex_gfs_operation_t op,
                                                     tarvex_size_t *block_size);
TARVEX_API void tarvex_gridftp_server_get_optimal_concurrency(tarvex_gfs_operation_t op,
                                                              int *count);

/* ---- cancellation ----
 *
 * An operation is cancelled when its client gives up on it: ABOR, the
 * control connection closing, the server being stopped (SIGTERM).  The
 * server then waits a grace period (tarvex-gridftp-server --cancel-grace,
 * a few seconds) for the plug-in function to return, and ends the session
 * without it when it does not.  A plug-in that wants its session to end
 * cleanly stops what it does and answers soon, with any error:
 *
 * - Long loops (a checksum over a large file, a copy) poll
 *   tarvex_gridftp_server_operation_cancelled(op) between steps.
 * - Registered reads and writes fail once the operation is cancelled: the
 *   register call returns an error, and reads and writes already
 *   registered complete with one (no more data moves).
 * - Code that has no operation handle at hand (a progress callback of a
 *   REST request made inside a table function) asks
 *   tarvex_gridftp_server_thread_cancelled(): the operation whose table
 *   function runs on the calling thread, as its caller declared with
 *   tarvex_gfs_operation_set_current().  The REST client's stock progress
 *   callback does so: every request made for a cancelled operation ends
 *   with a non-retryable error.
 *
 * Cancellation is a request, never forced: nothing is interrupted, and a
 * cancelled operation is still answered exactly once.
 */

/* True once `op` has been cancelled (it never becomes false again).
 * Cheap: made to be polled.  False for NULL. */
TARVEX_API bool tarvex_gridftp_server_operation_cancelled(tarvex_gfs_operation_t op);
/* True when the calling thread's current operation has been cancelled;
 * false when the thread has none. */
TARVEX_API bool tarvex_gridftp_server_thread_cancelled(void);

/* ---- metrics ----
 *
 * What a plug-in does with the service behind it, counted for the
 * server's operators (tarvex-gridftp-server --metrics-listen serves the
 * counts of every session for Prometheus).  A plug-in reports under the
 * names below, with the label values each takes separated by one space
 * (each at most 24 characters of letters, digits and "_.:/-"); a report
 * with another name, a wrong number of label values or a negative amount
 * is dropped.  Both calls are cheap, take no lock a caller could wait on,
 * may come from any thread, and do nothing where nobody collects them (a
 * server without --metrics-listen, a test driver).
 *
 * Counters (tarvex_gridftp_server_metric_add):
 *   "storage_requests"   labels "METHOD CODE": one per request sent, by
 *                        HTTP method and the answer's status (0: none came)
 *   "storage_retries"    requests that were attempts after the first
 *   "storage_throttled"  answers that asked to slow down (HTTP 429)
 *   "storage_retry_after_seconds"  seconds slept because an answer said
 *                        when to try again (Retry-After)
 *   "storage_token_renewals", "storage_token_renewal_failures"  renewals
 *                        of the access token asked for, and those that
 *                        brought no usable token
 * Histograms (tarvex_gridftp_server_metric_observe):
 *   "storage_pacing_wait_seconds"  one observation per request paced: the
 *                        seconds it waited for its turn (0 included)
 */
TARVEX_API void tarvex_gridftp_server_metric_add(const char *name, const char *labels,
                                                 double amount);
TARVEX_API void tarvex_gridftp_server_metric_observe(const char *name, const char *labels,
                                                     double value);

/* Whoever collects the reports (the server) sets this once, before any
 * plug-in runs; NULL collects none.  The functions must not throw and are
 * called from any thread. */
typedef struct tarvex_gfs_metrics_sink_s {
    void (*add)(void *ctx, const char *name, const char *labels, double amount);
    void (*observe)(void *ctx, const char *name, const char *labels, double value);
} tarvex_gfs_metrics_sink_t;
TARVEX_API void tarvex_gfs_metrics_set_sink(const tarvex_gfs_metrics_sink_t *sink, void *ctx);

/* ---- operations and their providers ---- */

/* Whoever creates operations supplies these.  `ctx` is the provider's own
 * argument given to tarvex_gfs_operation_create().  They are called from
 * plug-ins, which may be C: they must not throw.  (No function of this
 * library lets an exception out; one that a provider's function throws is
 * stopped at the library's edge: a call with a result returns an error,
 * any other call has no effect.) */
typedef struct tarvex_gfs_operation_provider_s {
    void (*finished_session_start)(void *ctx, tarvex_result_t result,
                                   void *session_arg, const char *username,
                                   const char *home_dir);
    void (*finished_stat)(void *ctx, tarvex_result_t result,
                          tarvex_gridftp_server_control_stat_t *stat_array,
                          int stat_count, bool partial);
    void (*finished_command)(void *ctx, tarvex_result_t result,
                             const char *command_response, bool intermediate);
    void (*begin_transfer)(void *ctx, int event_mask, void *event_arg);
    void (*finished_transfer)(void *ctx, tarvex_result_t result);
    void (*get_read_range)(void *ctx, tarvex_off_t *offset, tarvex_off_t *length);
    void (*get_write_range)(void *ctx, tarvex_off_t *offset, tarvex_off_t *length);
    tarvex_result_t (*register_read)(void *ctx, tarvex_gfs_operation_t op,
                                     tarvex_byte_t *buffer, tarvex_size_t length,
                                     tarvex_gridftp_server_read_cb_t callback,
                                     void *user_arg);
    tarvex_result_t (*register_write)(void *ctx, tarvex_gfs_operation_t op,
                                      tarvex_byte_t *buffer, tarvex_size_t length,
                                      tarvex_off_t offset, int stripe_ndx,
                                      tarvex_gridftp_server_write_cb_t callback,
                                      void *user_arg);
    void (*update_bytes_recvd)(void *ctx, tarvex_off_t length);
    void (*update_bytes_written)(void *ctx, tarvex_off_t offset, tarvex_off_t length);
    tarvex_result_t (*get_config_data)(void *ctx, const char *key, char **data);
    void (*set_checksum_support)(void *ctx, const char *cksm_str);
    void (*get_update_interval)(void *ctx, int *interval);
    tarvex_result_t (*get_recv_modification_time)(void *ctx, time_t *modtime);
    void (*get_block_size)(void *ctx, tarvex_size_t *block_size);
    void (*get_optimal_concurrency)(void *ctx, int *count);
} tarvex_gfs_operation_provider_t;

/* A provider slot left NULL answers with a neutral default (no data, no
 * range, an error for register calls). */
TARVEX_API tarvex_gfs_operation_t tarvex_gfs_operation_create(
    const tarvex_gfs_operation_provider_t *provider, void *ctx);
TARVEX_API void tarvex_gfs_operation_destroy(tarvex_gfs_operation_t op);
TARVEX_API void *tarvex_gfs_operation_get_context(tarvex_gfs_operation_t op);

/* Cancels `op` (see "cancellation" above); any thread, any number of
 * times.  From then on the library refuses the operation's register_read
 * and register_write calls itself; the provider fails the ones it already
 * holds. */
TARVEX_API void tarvex_gfs_operation_cancel(tarvex_gfs_operation_t op);
/* Makes `op` the calling thread's current operation (NULL: none) and
 * returns the previous one.  Whoever calls a plug-in's table function sets
 * it for the duration of the call and restores the previous one after.
 * The operation must outlive the time it is current. */
TARVEX_API tarvex_gfs_operation_t tarvex_gfs_operation_set_current(tarvex_gfs_operation_t op);

/* ---- errors ---- */

typedef enum {
    TARVEX_GFS_ERROR_MEMORY = 1,
    TARVEX_GFS_ERROR_SYSTEM_ERROR = 2,
    TARVEX_GFS_ERROR_WRAPPED = 3,
    TARVEX_GFS_ERROR_DATA = 4,
    TARVEX_GFS_ERROR_FTP_RESPONSE = 5,
    TARVEX_GFS_ERROR_GENERIC = 6
} tarvex_gfs_error_type_t;

/* The FTP response error type (derived from the base error): a reply code,
 * an error class word and a message. */
TARVEX_API extern const tarvex_object_type_t TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION;
#define TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE (&TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION)

/* New FTP response error: reply code, class word (e.g. "PATH_NOT_FOUND";
 * may be NULL), message from `format` (may be NULL: no message), `cause`
 * owned by the new error.  Its type number is TARVEX_GFS_ERROR_FTP_RESPONSE.
 * NULL when memory runs out. */
TARVEX_API tarvex_object_t *tarvex_gfs_ftp_response_error_construct(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int response_code,
    const char *response_error_code, const char *format, ...)
    __attribute__((format(printf, 5, 6)));
TARVEX_API tarvex_object_t *tarvex_gfs_ftp_response_error_v_construct(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int response_code,
    const char *response_error_code, const char *format, va_list ap)
    __attribute__((format(printf, 5, 0)));

/* Accessors; 0 / NULL when `error` is not an FTP response error. */
TARVEX_API int tarvex_gfs_ftp_response_error_get_code(const tarvex_object_t *error);
TARVEX_API const char *tarvex_gfs_ftp_response_error_get_class(const tarvex_object_t *error);
TARVEX_API const char *tarvex_gfs_ftp_response_error_get_message(const tarvex_object_t *error);
/* The nearest FTP response error in the chain of `error`, or NULL. */
TARVEX_API tarvex_object_t *tarvex_gfs_ftp_response_error_find(tarvex_object_t *error);

/* A system error: an errno error of type TARVEX_GFS_ERROR_SYSTEM_ERROR
 * whose message is formatted from `format` (conventionally
 * "System error%s%s", " in ", "<call>"); already put into the error table. */
TARVEX_API tarvex_result_t tarvex_i_gfs_error_system(tarvex_module_descriptor_t *module,
                                                     int system_errno, const char *format,
                                                     ...) __attribute__((format(printf, 3, 4)));
/* The system error of an allocation that failed ("System error in malloc"),
 * with `system_errno` (ENOMEM, or what the failed call left in errno). */
#define TARVEX_GFS_MALLOC_ERROR(module, system_errno) \
    tarvex_i_gfs_error_system((module), (system_errno), "System error%s%s", " in ", "malloc")


/* The FTP reply for a failed result, CRLF-terminated, allocated.
 *
 * FTP response error with code C, class K, message M and causes:
 *   the lines are K, then each line of M, then the printable lines of the
 *   cause chain (outermost first; blank lines dropped).  One line gives
 *   "C K\r\n"; more give "C-line\r\n" for all but the last and "C last\r\n"
 *   (RFC 959 multi-line form).  An empty class word is left out.
 * Any other error: code 451, lines from its printed chain.
 * TARVEX_FAILURE or an unknown handle: "451 Operation failed.\r\n".
 * Control characters other than the line breaks are dropped from lines.
 * `default_code` (0: 451) replaces 451 for errors without a code of their
 * own.  The result is not taken out of the error table. */
TARVEX_API char *tarvex_gfs_error_to_ftp_reply(tarvex_result_t result, int default_code);
/* The same for an error object. */
TARVEX_API char *tarvex_gfs_error_object_to_ftp_reply(const tarvex_object_t *error,
                                                      int default_code);

#ifdef __cplusplus
}
#endif

#endif
