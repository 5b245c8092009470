// Where the client keeps what outlives it.
#pragma once

#include <string>

namespace client {

// Returns the directory for history, state files and mailbox: $XDG_STATE_HOME/schedctl when that is set; else the
// directory of the package when it is writable (its users share one mailbox); else the user's own,
// ~/.local/state/schedctl, created with mode 0700. Empty when there is none.
std::string state_directory();

// A directory below it, with a slash at the end; created with the mode of state_directory() when it is missing. Empty
// when there is no state_directory().
std::string state_subdirectory(const char* name);

// The same for what is private: the history of sessions. Never the package's directory.
std::string private_directory();

// True when this directory is shared by a group: its files then have the mode 0660.
bool is_shared(const std::string& directory);

}  // namespace client
