// The command words the scheduler answers itself.
#pragma once

#include "comm/hmi_table.h"

// Runs the handler of the line's first word; "__unsupported__" when there is none. Cuts the line in place, which
// holds at most 15 fields. The connection's own thread.
void do_internal(hmistruc& hmi, char* line);

// True when do_internal has a handler for the word. Any thread.
bool is_answered(const char* word);
