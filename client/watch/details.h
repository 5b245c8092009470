// The questions besides `status` that complete a snapshot.
#pragma once

#include "watch/snapshot.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

// A command whose answer tells of connections, modules or timer jobs. A scheduler that does not know it leaves that
// part as it was.
struct detail {
    std::vector<std::string> words;
    void (*read)(std::string_view answer, snapshot& known);
};

const std::vector<detail>& details();

}  // namespace client
