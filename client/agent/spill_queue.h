// A queue of text: the first bytes are kept in memory, more of them in a temporary file without a name.
#pragma once

#include "term/descriptor.h"

#include <string>
#include <string_view>

namespace client {

class spill_queue {
public:
    // Throws std::system_error when the temporary file cannot be written.
    void add(std::string_view text);

    bool empty() const { return front_.empty() && in_file_ == 0; }

    // The oldest bytes, at least one unless the queue is empty. Valid until the next call.
    std::string_view front();
    void pop(std::size_t bytes);  // not more than front() has

private:
    std::string front_;
    std::size_t popped_ = 0;   // bytes of front_ that pop() has taken
    descriptor file_;          // its last bytes follow front_
    std::size_t in_file_ = 0;  // number of these bytes
    off_t read_ = 0;           // number of the bytes before them, which were read already
};

}  // namespace client
