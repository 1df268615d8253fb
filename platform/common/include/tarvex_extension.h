/*
 * Extension registries and loadable extensions.
 *
 * A registry maps a string symbol to a datum supplied by a module (for
 * example the server's storage-interface registry maps "box" to a plug-in's
 * table).  Registries are zero-initialised globals; they need no set-up.
 *
 * An extension named N is a shared library libN.so exporting a module
 * descriptor named N_module.  tarvex_extension_activate(N) loads it from the
 * search path and activates its module; deactivate reverses both.  The
 * search path is, in order: the directories set with
 * tarvex_extension_set_search_path(), the colon-separated directories of
 * the environment variable TARVEX_EXTENSION_PATH, then the dynamic linker's
 * own search (LD_LIBRARY_PATH, the run path, the system directories).
 */
#ifndef TARVEX_EXTENSION_H
#define TARVEX_EXTENSION_H

#include "tarvex_module.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tarvex_extension_registry_s {
    void *table; /* private; NULL until first use */
} tarvex_extension_registry_t;

/* Adds `symbol` (a string, copied) with `data`.  Non-zero when the symbol
 * is already present or memory runs out. */
TARVEX_API int tarvex_extension_registry_add(tarvex_extension_registry_t *registry,
                                             const void *symbol,
                                             tarvex_module_descriptor_t *module, void *data);
/* Removes the symbol; returns its datum or NULL. */
TARVEX_API void *tarvex_extension_registry_remove(tarvex_extension_registry_t *registry,
                                                  const void *symbol);
/* The datum of the symbol, or NULL. */
TARVEX_API void *tarvex_extension_lookup(tarvex_extension_registry_t *registry,
                                         const void *symbol);
/* The module that added the symbol, or NULL. */
TARVEX_API tarvex_module_descriptor_t *tarvex_extension_registry_module(
    tarvex_extension_registry_t *registry, const void *symbol);

/* Colon-separated directories searched first (copied; NULL clears). */
TARVEX_API void tarvex_extension_set_search_path(const char *path);

/* Loads libNAME.so and activates NAME_module.  0 on success; non-zero
 * (with a message in tarvex_extension_last_error()) when the library or
 * symbol cannot be found, or the activation fails.  Activating a loaded
 * extension again only counts a reference. */
TARVEX_API int tarvex_extension_activate(const char *extension_name);
/* Deactivates the module and unloads the library on the last reference. */
TARVEX_API int tarvex_extension_deactivate(const char *extension_name);
/* Text describing the last failure of this thread's activate, or "". */
TARVEX_API const char *tarvex_extension_last_error(void);

#ifdef __cplusplus
}
#endif

#endif
