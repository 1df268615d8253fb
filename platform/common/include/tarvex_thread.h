/* Threads, mutexes and condition variables: thin wrappers over POSIX
 * threads.  All return 0 on success or an errno value. */
#ifndef TARVEX_THREAD_H
#define TARVEX_THREAD_H

#include <pthread.h>
#include <time.h>

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef pthread_mutex_t tarvex_mutex_t;
typedef pthread_cond_t tarvex_cond_t;
typedef pthread_t tarvex_thread_t; /* an unsigned long: printable with %lu */
typedef void *(*tarvex_thread_func_t)(void *arg);

TARVEX_API int tarvex_mutex_init(tarvex_mutex_t *mutex, void *attr_unused);
TARVEX_API int tarvex_mutex_lock(tarvex_mutex_t *mutex);
TARVEX_API int tarvex_mutex_unlock(tarvex_mutex_t *mutex);
TARVEX_API int tarvex_mutex_destroy(tarvex_mutex_t *mutex);

TARVEX_API int tarvex_cond_init(tarvex_cond_t *cond, void *attr_unused);
TARVEX_API int tarvex_cond_wait(tarvex_cond_t *cond, tarvex_mutex_t *mutex);
/* Waits until `abstime` (CLOCK_REALTIME); ETIMEDOUT when it passed. */
TARVEX_API int tarvex_cond_timedwait(tarvex_cond_t *cond, tarvex_mutex_t *mutex,
                                     const struct timespec *abstime);
TARVEX_API int tarvex_cond_signal(tarvex_cond_t *cond);
TARVEX_API int tarvex_cond_broadcast(tarvex_cond_t *cond);
TARVEX_API int tarvex_cond_destroy(tarvex_cond_t *cond);

TARVEX_API tarvex_thread_t tarvex_thread_self(void);
TARVEX_API int tarvex_thread_create(tarvex_thread_t *thread, tarvex_thread_func_t func,
                                    void *arg);
TARVEX_API int tarvex_thread_join(tarvex_thread_t thread, void **result);
TARVEX_API int tarvex_thread_detach(tarvex_thread_t thread);

#ifdef __cplusplus
}
#endif

#endif
