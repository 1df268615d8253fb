/*
 * Box's error answers as the plug-in's errors.
 */
#ifndef TARVEX_BOX_TRANSLATE_RESPONSE_H
#define TARVEX_BOX_TRANSLATE_RESPONSE_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_translate_response(
    const tarvex_dsi_rest_response_arg_t *response, json_t *json, bool *retry,
    unsigned long *retry_after);

}

#endif
