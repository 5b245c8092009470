// A POSIX mutex that clang's thread-safety analysis understands, and a guard that locks it for a scope.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif
#define CAPABILITY(x) THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

// A default (non-recursive) mutex that needs no start-up code.
class CAPABILITY("mutex") posix_mutex {
public:
    constexpr posix_mutex() = default;
    posix_mutex(const posix_mutex&) = delete;
    posix_mutex& operator=(const posix_mutex&) = delete;

    // A default mutex reports errors only for wrong use, so the results are ignored.
    void lock() ACQUIRE() { static_cast<void>(pthread_mutex_lock(&mutex_)); }
    void unlock() RELEASE() { static_cast<void>(pthread_mutex_unlock(&mutex_)); }
    // Unlocks, waits for a signal on condition, and locks again; may also return without a signal.
    void wait(pthread_cond_t& condition) REQUIRES(this) { static_cast<void>(pthread_cond_wait(&condition, &mutex_)); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a posix_mutex or fair_mutex until the end of the scope.
template <typename Mutex>
class SCOPED_CAPABILITY mutex_guard {
public:
    explicit mutex_guard(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~mutex_guard() RELEASE() { mutex_.unlock(); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

private:
    Mutex& mutex_;
};
