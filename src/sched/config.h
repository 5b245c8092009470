// The settings in the two INI files.
#pragma once

// Reads "sched.conf" and "common.ini" into the record. A missing or rejected value leaves the default.
// Start-up only.
void read_config();
