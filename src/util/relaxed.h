// A single field that several threads read and write without a lock.
#pragma once

#include <atomic>

// Each read and write is atomic, but not ordered with other memory accesses. Good for marks, switches and counters
// that are read alone; wrong for a flag that announces other data.
template <typename T>
class relaxed {
public:
    constexpr relaxed(T value = T{}) noexcept : value_(value) {}
    relaxed(const relaxed&) = delete;
    relaxed& operator=(const relaxed&) = delete;

    [[nodiscard]] T get() const noexcept { return value_.load(std::memory_order_relaxed); }
    operator T() const noexcept { return get(); }
    T operator=(T value) noexcept {
        value_.store(value, std::memory_order_relaxed);
        return value;
    }
    // Stores value and returns the old value, in one step.
    T exchange(T value) noexcept { return value_.exchange(value, std::memory_order_relaxed); }

private:
    static_assert(std::atomic<T>::is_always_lock_free, "a lock inside would defeat the purpose");
    std::atomic<T> value_;
};
