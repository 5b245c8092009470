// A lock that threads get in the order in which they asked for it.
#pragma once

#include "util/mutex.h"

#include <pthread.h>

// A plain mutex is free as soon as it is unlocked, so a thread that locks it in a loop takes it again before a waiting
// thread has woken. unlock of this one passes the lock to the first waiter instead. Locking it while it is free makes
// no system call. It needs no start-up code and allocates nothing. Any thread; not recursive.
class CAPABILITY("mutex") fair_mutex {
public:
    constexpr fair_mutex() = default;
    fair_mutex(const fair_mutex&) = delete;
    fair_mutex& operator=(const fair_mutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();
    // Takes the lock if it is free, and then returns true. Never waits.
    [[nodiscard]] bool try_lock() TRY_ACQUIRE(true);

private:
    // A thread that waits in lock(); lives on that thread's stack.
    struct waiter {
        pthread_cond_t turn = PTHREAD_COND_INITIALIZER;
        bool is_owner = false;
        waiter* next = nullptr;
    };

    posix_mutex state_;  // guards the fields below; never held while waiting for the lock itself
    bool locked_ GUARDED_BY(state_) = false;
    waiter* first_ GUARDED_BY(state_) = nullptr;
    waiter* last_ GUARDED_BY(state_) = nullptr;
};
