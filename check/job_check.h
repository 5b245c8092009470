// The timer job file.
#pragma once

#include "findings.h"

namespace check {

// Checks each line of the file at timer_jobs_path of st. With a module list that is loaded, has_modules, commands are
// looked up in it. Then prints the next `runs` times of each job, one "file:line: runs at" line each.
void check_jobs(bool has_modules, int runs, findings& to);

}  // namespace check
