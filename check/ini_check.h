// The INI files: sched.conf, common.ini and pvo.ini.
#pragma once

#include "findings.h"

namespace check {

// Checks each line of the three files in a directory. A file that is absent leaves the defaults and is no finding.
// Leaves the environment variable VGD_config set to another directory.
void check_ini_files(const std::string& directory, findings& to);

}  // namespace check
