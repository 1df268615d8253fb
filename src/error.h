/*
 * The plug-in's error object: a generic error that carries the fields of
 * Box's error answer.
 */
#ifndef TARVEX_BOX_ERROR_H
#define TARVEX_BOX_ERROR_H

#include "tarvex_box_common.h"

extern "C" {

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
/* Ends the error chain of `result` with a box error holding `info`, after
 * any cause of its own, and gives `result` back.  Success, and a result
 * out of memory for the new error, go as they came. */
tarvex_result_t tarvex_box_error_append(tarvex_result_t result,
                                        const tarvex_dsi_rest_key_array_t *info);

/* An FTP error for operations that arrive with a later release. */
tarvex_result_t tarvex_box_not_implemented_yet(const char *what);

}

#endif
