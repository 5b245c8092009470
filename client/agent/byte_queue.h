// Bytes that wait for their reader.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

class byte_queue {
public:
    void add(std::string_view bytes) { bytes_ += bytes; }

    std::size_t size() const { return bytes_.size() - taken_; }
    bool empty() const { return size() == 0; }

    // All bytes, oldest first. Valid until the next add() or pop().
    std::string_view front() const { return std::string_view(bytes_).substr(taken_); }

    void pop(std::size_t count) {  // not more than size()
        taken_ += count;
        // Not at each call: it moves the bytes that stay.
        if (taken_ > bytes_.size() / 2) {
            bytes_.erase(0, std::exchange(taken_, 0));
            bytes_.shrink_to_fit();
        }
    }

private:
    std::string bytes_;
    std::size_t taken_ = 0;  // bytes that pop() has taken
};
