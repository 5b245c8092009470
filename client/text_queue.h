// Text that waits for its turn: a little in memory, more in a file without a name.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace client {

class text_queue {
public:
    text_queue() = default;
    ~text_queue();
    text_queue(const text_queue&) = delete;
    text_queue& operator=(const text_queue&) = delete;
    text_queue(text_queue&& other) noexcept;

    // Throws std::system_error when there is no place for it.
    void add(std::string_view text);

    // Gives all of it to `take`, in the order in which it was added, and is empty then.
    void drain(const std::function<void(std::string_view)>& take);

private:
    void move_to_file();

    std::string memory_;
    int file_ = -1;  // holds what came before memory_
};

}  // namespace client
