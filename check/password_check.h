// The password file.
#pragma once

#include "report.h"

namespace check {

// Judges the file "password" in the directory that VGD_data names. It may be absent: then nobody needs to log in.
void check_password(report& to);

}  // namespace check
