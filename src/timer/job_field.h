// Parsing the fields of a line of the timer job file.
#pragma once

#include <cstdint>

// Parses the time field at the start of field and sets its slots to 1; slots is an array of n zeros.
// A bad item is traced; after a bad step or range the rest of the field is ignored. Any thread.
void set_job_field(const char* field, std::uint8_t* slots, int n);

// Returns the start of the field after the one at text. When the line is too short, traces its number lineno and
// returns null. Any thread.
const char* next_word(const char* text, int lineno);
