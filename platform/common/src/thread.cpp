// Thin wrappers over POSIX threads.
#include "tarvex_thread.h"

extern "C" {

int tarvex_mutex_init(tarvex_mutex_t *mutex, void *)
{
    return pthread_mutex_init(mutex, nullptr);
}

int tarvex_mutex_lock(tarvex_mutex_t *mutex)
{
    return pthread_mutex_lock(mutex);
}

int tarvex_mutex_unlock(tarvex_mutex_t *mutex)
{
    return pthread_mutex_unlock(mutex);
}

int tarvex_mutex_destroy(tarvex_mutex_t *mutex)
{
    return pthread_mutex_destroy(mutex);
}

int tarvex_cond_init(tarvex_cond_t *cond, void *)
{
    return pthread_cond_init(cond, nullptr);
}

int tarvex_cond_wait(tarvex_cond_t *cond, tarvex_mutex_t *mutex)
{
    return pthread_cond_wait(cond, mutex);
}

int tarvex_cond_timedwait(tarvex_cond_t *cond, tarvex_mutex_t *mutex,
                          const struct timespec *abstime)
{
    return pthread_cond_timedwait(cond, mutex, abstime);
}

int tarvex_cond_signal(tarvex_cond_t *cond)
{
    return pthread_cond_signal(cond);
}

int tarvex_cond_broadcast(tarvex_cond_t *cond)
{
    return pthread_cond_broadcast(cond);
}

int tarvex_cond_destroy(tarvex_cond_t *cond)
{
    return pthread_cond_destroy(cond);
}

tarvex_thread_t tarvex_thread_self(void)
{
    return pthread_self();
}

int tarvex_thread_create(tarvex_thread_t *thread, tarvex_thread_func_t func, void *arg)
{
    return pthread_create(thread, nullptr, func, arg);
}

int tarvex_thread_join(tarvex_thread_t thread, void **result)
{
    return pthread_join(thread, result);
}

int tarvex_thread_detach(tarvex_thread_t thread)
{
    return pthread_detach(thread);
}

} // extern "C"
