/*
 * Listing a Box folder page by page, and reading one file's information,
 * handing each item to a callback.
 */
#ifndef TARVEX_BOX_GET_FOLDER_ITEMS_H
#define TARVEX_BOX_GET_FOLDER_ITEMS_H

#include "tarvex_box_common.h"

extern "C" {

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

}

#endif
