// Replaces a file in one step.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

// Puts a new file in the old one's place: a reader finds the old text or the new one, never a part. prepare may do more
// to the new file, by its descriptor, when the text is written; false from it, with errno, gives up. Throws
// std::runtime_error with the reason when it could not be done; a device, a pipe and a symbolic link are refused.
void replace_file(const std::string& path, std::string_view text, mode_t mode,
                  const std::function<bool(int fd)>& prepare = nullptr);

// The directory of a file, "." for a plain name.
std::string directory_of(const std::string& path);
