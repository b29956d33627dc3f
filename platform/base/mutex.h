// Mutexes that are unlocked in a forked child.
//
// The forking thread holds such a mutex across the fork, so that in the child no other thread owns
// it and what it guards is consistent.
#pragma once

#include <pthread.h>

namespace platform {

// Registers the fork handlers of the mutex. Returns 0, or an error number if there is no memory for
// the handlers.
template <pthread_mutex_t &Mutex>
[[nodiscard]] int keep_across_fork()
{
    return pthread_atfork([] { pthread_mutex_lock(&Mutex); }, [] { pthread_mutex_unlock(&Mutex); },
                          [] { pthread_mutex_unlock(&Mutex); });
}

class scoped_lock {
public:
    explicit scoped_lock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;
    ~scoped_lock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t &mutex_;
};

} // namespace platform
