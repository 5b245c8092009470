// A queue of text: the first bytes are kept in memory, more of them in a temporary file without a name.
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

    // Throws std::system_error when the temporary file cannot be written.
    void add(std::string_view text);

    // Passes all text to `take`, in the order in which it was added. The queue is then empty.
    void drain(const std::function<void(std::string_view)>& take);

private:
    void move_to_file();

    std::string memory_;
    int file_ = -1;  // contains the text that came before memory_
};

}  // namespace client
