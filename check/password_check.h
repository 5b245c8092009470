// The password file.
#pragma once

#include "findings.h"

namespace check {

// Checks the file "password" in the directory that VGD_data names. It may be absent: then nobody needs to log in.
void check_password(findings& to);

}  // namespace check
