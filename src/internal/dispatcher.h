// The command words that the scheduler answers itself.
#pragma once

#include "comm/hmi_table.h"

// Runs the handler of the line's first word, or answers "__unsupported__" when there is none. Splits the line in
// place, into at most 15 fields. The connection's own thread.
void do_internal(hmistruc& hmi, char* line);

// Returns true when do_internal has a handler for the word. Any thread.
bool is_answered(const char* word);
