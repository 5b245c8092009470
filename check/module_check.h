// The module list.
#pragma once

#include "report.h"

namespace check {

// Judges each line of the file at modules_path of st, then loads the whole list into the daemon's module table.
// bin is the directory of the programs; empty: unknown, and programs are not looked for. False without a list.
bool check_modules(const std::string& bin, report& to);

// The words of the loaded list.
std::vector<std::string> module_words();

}  // namespace check
