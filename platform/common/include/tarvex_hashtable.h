/*
 * A chained hashtable keyed by caller-owned keys.
 *
 * - init takes a bucket count, a hash and a key equality function; non-zero
 *   when memory runs out.  The table grows itself when it gets crowded, so
 *   the bucket count is a starting size, not a limit.
 * - insert fails (non-zero) when an equal key is present; the key pointer is
 *   stored as given (not copied) and must live as long as the entry.
 * - lookup and remove return the datum, or NULL when the key is absent.
 * - destroy calls the release function (when given) on every datum, then
 *   frees the table; the handle becomes NULL.  Destroying a NULL handle is
 *   a no-op.
 * A table is not locked; use it from one thread at a time.
 */
#ifndef TARVEX_HASHTABLE_H
#define TARVEX_HASHTABLE_H

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tarvex_hashtable_s *tarvex_hashtable_t;

typedef int (*tarvex_hashtable_hash_func_t)(void *key, int limit);
typedef int (*tarvex_hashtable_keyeq_func_t)(void *key1, void *key2);
typedef void (*tarvex_hashtable_destructor_func_t)(void *datum);

TARVEX_API int tarvex_hashtable_init(tarvex_hashtable_t *table, int size,
                                     tarvex_hashtable_hash_func_t hash_func,
                                     tarvex_hashtable_keyeq_func_t keyeq_func);
TARVEX_API int tarvex_hashtable_insert(tarvex_hashtable_t *table, void *key, void *datum);
TARVEX_API void *tarvex_hashtable_lookup(tarvex_hashtable_t *table, void *key);
TARVEX_API void *tarvex_hashtable_remove(tarvex_hashtable_t *table, void *key);
TARVEX_API int tarvex_hashtable_size(tarvex_hashtable_t *table);
TARVEX_API int tarvex_hashtable_destroy_all(tarvex_hashtable_t *table,
                                            tarvex_hashtable_destructor_func_t element_free);
TARVEX_API int tarvex_hashtable_destroy(tarvex_hashtable_t *table);

/* Calls `func` on every entry; stop early by returning non-zero. */
typedef int (*tarvex_hashtable_visit_func_t)(void *key, void *datum, void *arg);
TARVEX_API void tarvex_hashtable_foreach(tarvex_hashtable_t *table,
                                         tarvex_hashtable_visit_func_t func, void *arg);

/* Hash and equality for NUL-terminated strings (exact, case matters). */
TARVEX_API int tarvex_hashtable_string_hash(void *string, int limit);
TARVEX_API int tarvex_hashtable_string_keyeq(void *string1, void *string2);

#ifdef __cplusplus
}
#endif

#endif
