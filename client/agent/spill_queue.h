// A queue of text: the first bytes are kept in memory, more of them in a temporary file without a name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace client {

class spill_queue {
public:
    spill_queue() = default;
    ~spill_queue();
    spill_queue(const spill_queue&) = delete;
    spill_queue& operator=(const spill_queue&) = delete;
    spill_queue(spill_queue&& other) noexcept;

    // Throws std::system_error when the temporary file cannot be written.
    void add(std::string_view text);

    bool empty() const { return front_.empty() && file_read_ == file_written_; }

    // The oldest bytes, at least one unless the queue is empty. Valid until the next call.
    std::string_view front();
    void pop(std::size_t bytes);  // not more than front() has

private:
    std::string front_;
    std::size_t popped_ = 0;  // bytes of front_
    int file_ = -1;           // what comes behind front_
    std::uint64_t file_read_ = 0;
    std::uint64_t file_written_ = 0;
};

}  // namespace client
