// The module list.
#pragma once

#include "findings.h"

namespace check {

// Checks each line of the file at modules_path of st, then loads the whole list into the daemon's module table.
// bin is the directory of the programs; empty: unknown, and the programs are not checked. False without a list.
bool check_modules(const std::string& bin, findings& to);

// The words of the loaded list.
std::vector<std::string> module_words();

}  // namespace check
