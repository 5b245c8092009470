// The time fields of one line of the timer job file.
#pragma once

#include <string>
#include <vector>

namespace check {

// What is wrong with the five time fields of a line that the daemon takes as a job: items that it leaves out, and items
// that it reads as something else than is written. One text each.
std::vector<std::string> validate_fields(const std::string& line);

// The sixth field of such a line: the rest of it, up to the newline.
std::string command_of(const std::string& line);

}  // namespace check
