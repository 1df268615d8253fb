/*
 * Modules: a descriptor per library or subsystem, activated and deactivated
 * with reference counts.  The activation function runs on the first
 * activate; when it fails (non-zero) the module stays inactive and the
 * result is returned.  The deactivation function runs on the last
 * deactivate.  Activation functions may activate other modules.
 */
#ifndef TARVEX_MODULE_H
#define TARVEX_MODULE_H

#include "tarvex_object.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*tarvex_module_activation_func_t)(void);
typedef int (*tarvex_module_deactivation_func_t)(void);
typedef void (*tarvex_module_atexit_func_t)(void);
typedef void *(*tarvex_module_get_pointer_func_t)(void);
/* A friendlier text for an error of this module, or NULL. */
typedef char *(*tarvex_module_friendly_error_func_t)(tarvex_object_t *error);

typedef struct tarvex_version_s {
    int major;
    int minor;
    unsigned long timestamp;
    int branch_id;
} tarvex_version_t;

typedef struct tarvex_module_descriptor_s {
    const char *module_name;
    tarvex_module_activation_func_t activation_func;
    tarvex_module_deactivation_func_t deactivation_func;
    tarvex_module_atexit_func_t atexit_func;
    tarvex_module_get_pointer_func_t get_pointer_func;
    const tarvex_version_t *version;
    tarvex_module_friendly_error_func_t friendly_error_func;
} tarvex_module_descriptor_t;

/* 0 on success, else the activation function's non-zero result (-1,
 * without calling it, for NULL or when memory runs out). */
TARVEX_API int tarvex_module_activate(tarvex_module_descriptor_t *module);
/* 0 on success; deactivating an inactive module returns non-zero. */
TARVEX_API int tarvex_module_deactivate(tarvex_module_descriptor_t *module);
/* Current activation count (0: inactive). */
TARVEX_API int tarvex_module_activation_count(const tarvex_module_descriptor_t *module);

#ifdef __cplusplus
}
#endif

#endif
