#ifndef TARVEX_TYPES_H
#define TARVEX_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * What a library or plug-in exports: every library is built with hidden
 * visibility, so its C API (and a plug-in's module descriptors) carry this
 * and nothing else leaves the shared object.
 */
#define TARVEX_API __attribute__((visibility("default")))

/*
 * The result of every operation: TARVEX_SUCCESS, or a handle on an error
 * object held in the process error table (see tarvex_error.h).
 * TARVEX_FAILURE is a bare failure value with no error object behind it.
 */
typedef uint32_t tarvex_result_t;
#define TARVEX_SUCCESS ((tarvex_result_t)0)
#define TARVEX_FAILURE ((tarvex_result_t)0xFFFFFFFFu)

typedef unsigned char tarvex_byte_t;
typedef size_t tarvex_size_t;
typedef int64_t tarvex_off_t;

#ifdef __cplusplus
}
#endif

#endif
