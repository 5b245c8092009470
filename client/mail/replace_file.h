// Replaces a file in one step.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace client {

// Puts a new file in the old one's place: a reader finds the old text or the new one, never a part. durable: it is on
// the disk when this returns. prepare may do more to the new file by its descriptor before that; false from it, with
// errno, gives up. false with problem when it could not be done; a
// device, a pipe and a symbolic link are refused.
bool replace_file(const std::string& path, std::string_view text, mode_t mode, bool durable,
                  std::string& problem, const std::function<bool(int fd)>& prepare = nullptr);

// The directory of a file, "." for a plain name.
std::string directory_of(const std::string& path);

}  // namespace client
