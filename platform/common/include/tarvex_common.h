/*
 * tarvex_common: the process runtime shared by the server, the REST client
 * and every storage plug-in.  Include this one header; it pulls in the rest.
 */
#ifndef TARVEX_COMMON_H
#define TARVEX_COMMON_H

#include "tarvex_types.h"
#include "tarvex_object.h"
#include "tarvex_error.h"
#include "tarvex_module.h"
#include "tarvex_extension.h"
#include "tarvex_debug.h"
#include "tarvex_thread.h"
#include "tarvex_hashtable.h"
#include "tarvex_uuid.h"
#include "tarvex_time.h"
#include "tarvex_string.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The runtime's own module.  Activate it before using results, errors,
 * debug handles or extensions; every activation is reference counted. */
TARVEX_API extern tarvex_module_descriptor_t tarvex_i_common_module;

#ifdef __cplusplus
}
#endif

#endif
