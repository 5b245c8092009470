// Where the client keeps what outlives it.
#pragma once

#include <optional>
#include <string>

namespace client {

struct endpoint;

// Returns the user's own directory, $XDG_STATE_HOME/schedctl or ~/.local/state/schedctl, and creates it with mode 0700
// when it is missing. Empty when the user has no home directory.
std::string state_directory();

// Returns "HOST:PORT" as part of a file name. localhost and 127.0.0.1 give the same one.
std::string file_name_of(const endpoint& where);

// The bytes of a regular file; nothing when it is another kind of file or cannot be read.
std::optional<std::string> read_file(const std::string& path);

}  // namespace client
