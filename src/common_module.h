/*
 * The plug-in's common module: its descriptor and the debug output it sets up
 * (the log macros themselves are in tarvex_box_common.h).
 */
#ifndef TARVEX_BOX_COMMON_MODULE_H
#define TARVEX_BOX_COMMON_MODULE_H

#include "tarvex_box_common.h"

extern "C" {

TARVEX_API extern tarvex_module_descriptor_t tarvex_i_box_common_module;

void tarvex_i_TARVEX_BOX_debug_printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
void tarvex_i_TARVEX_BOX_debug_time_printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
void tarvex_i_TARVEX_BOX_debug_fwrite(const void *buffer, size_t size, size_t count);

}

#endif
