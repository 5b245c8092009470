// Where the client keeps what outlives it, and how it replaces such a file.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace client {

struct endpoint;

// The user's own directory, $XDG_STATE_HOME/schedctl or ~/.local/state/schedctl, made with mode 0700 when it is
// missing. Empty when the user has no home.
std::string state_directory();

// "HOST:PORT" as part of a file name. localhost and 127.0.0.1 give the same one.
std::string file_name_of(const endpoint& where);

// Puts a new file in the old one's place in one step: a reader finds the old text or the new one, never a part.
// durable: it is on the disk when this returns. false with problem when it could not be done.
bool replace_file(const std::string& path, std::string_view text, mode_t mode, bool durable,
                  std::string& problem);

}  // namespace client
