/*
 * The session's two tables: the path cache of item records and the upload
 * sessions in progress.
 */
#ifndef TARVEX_BOX_PATH_CACHE_H
#define TARVEX_BOX_PATH_CACHE_H

#include "tarvex_box_common.h"

extern "C" {

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

}

#endif
