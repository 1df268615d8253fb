#ifndef TARVEX_UUID_H
#define TARVEX_UUID_H

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A random (version 4) UUID: 16 bytes and its 36-character lower-case text
 * form "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx", NUL-terminated. */
typedef struct tarvex_uuid_s {
    unsigned char binary[16];
    char text[37];
} tarvex_uuid_t;

/* 0 on success; non-zero when no randomness could be had. */
TARVEX_API int tarvex_uuid_create(tarvex_uuid_t *uuid);

#ifdef __cplusplus
}
#endif

#endif
