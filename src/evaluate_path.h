/*
 * The expansion of "$VARIABLE" and "~" in configured paths.
 */
#ifndef TARVEX_BOX_EVALUATE_PATH_H
#define TARVEX_BOX_EVALUATE_PATH_H

#include "tarvex_box_common.h"

extern "C" {

tarvex_result_t tarvex_box_evaluate_path(const char *template_path, char **result);

}

#endif
