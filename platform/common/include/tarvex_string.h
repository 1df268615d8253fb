#ifndef TARVEX_STRING_H
#define TARVEX_STRING_H

#include <stdarg.h>

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* printf into a newly allocated string (free with free()); NULL when memory
 * runs out or the format fails. */
TARVEX_API char *tarvex_common_create_string(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
TARVEX_API char *tarvex_common_v_create_string(const char *format, va_list ap)
    __attribute__((format(printf, 1, 0)));

#ifdef __cplusplus
}
#endif

#endif
