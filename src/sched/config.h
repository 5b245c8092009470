// Settings from the two INI files.
#pragma once

// Reads "sched.conf" and "common.ini" into the record. What is missing or not acceptable keeps its default.
// Start-up only.
void read_config();
