// A lock that is handed on in the order in which threads asked for it.
#pragma once

#include "util/mutex.h"

#include <pthread.h>

// A plain mutex is free again as soon as it is unlocked, so a thread that locks it in a loop takes it before a waiting
// one has woken. This one stays locked and belongs to the first waiter. Free, it costs no system call. Ready without
// any start-up code; allocates nothing. Any thread, but not recursive.
class CAPABILITY("mutex") fair_mutex {
public:
    constexpr fair_mutex() = default;
    fair_mutex(const fair_mutex&) = delete;
    fair_mutex& operator=(const fair_mutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();
    // True when the lock was free, and so nobody waited, and is now the caller's; never waits.
    [[nodiscard]] bool try_lock() TRY_ACQUIRE(true);

private:
    // A thread in lock(), on whose stack it is.
    struct waiter {
        pthread_cond_t turn = PTHREAD_COND_INITIALIZER;
        bool is_owner = false;
        waiter* next = nullptr;
    };

    posix_mutex state_;  // guards the fields below, for a moment
    bool locked_ GUARDED_BY(state_) = false;
    waiter* first_ GUARDED_BY(state_) = nullptr;
    waiter* last_ GUARDED_BY(state_) = nullptr;
};
