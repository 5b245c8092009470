// The modules of each scheduler, as its last listing showed them: completion offers them without a connection.
#pragma once

#include "net/host_list.h"

namespace client {

// Keeps the names in an answer of `modcntl`, in a private file for each scheduler. Without a directory for it nothing
// is kept.
void keep_modules(const host_name& host, std::string_view answer);

std::vector<std::string> kept_modules(const host_name& host);

}  // namespace client
