// The mutex of a table that the server's processes share through an
// anonymous shared mapping (the TLS session registry, the metrics table):
// process-shared and robust.  A process that died holding it (a session
// killed by a signal) left the table whole, since every change under it
// is a few plain stores, so the next holder marks it consistent and goes on.
#ifndef TARVEX_SERVER_SHARED_MUTEX_H
#define TARVEX_SERVER_SHARED_MUTEX_H

#include <pthread.h>

#include <cerrno>

namespace tarvex_server {

// pthread_mutex_init's result.
inline int init_shared_mutex(pthread_mutex_t *mu)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    int rc = pthread_mutex_init(mu, &attr);
    pthread_mutexattr_destroy(&attr);
    return rc;
}

class SharedLock {
public:
    explicit SharedLock(pthread_mutex_t &mu) : mu_(mu)
    {
        if (pthread_mutex_lock(&mu_) == EOWNERDEAD)
            pthread_mutex_consistent(&mu_);
    }
    ~SharedLock() { pthread_mutex_unlock(&mu_); }
    SharedLock(const SharedLock &) = delete;
    SharedLock &operator=(const SharedLock &) = delete;

private:
    pthread_mutex_t &mu_;
};

} // namespace tarvex_server

#endif
