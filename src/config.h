/*
 * The plug-in's process-wide settings, which the policy may change, and the
 * origins of Box's APIs.
 */
#ifndef TARVEX_BOX_CONFIG_H
#define TARVEX_BOX_CONFIG_H

#include "tarvex_box_common.h"

extern "C" {

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

tarvex_result_t tarvex_box_config_parse_json(const char *text, int *rate);

}

#endif
