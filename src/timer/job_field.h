// The fields of a line of the timer job file.
#pragma once

#include <cstdint>

// Parses the time field at the start of field into slots, an array of n zeros; it only ever sets slots to 1.
// A bad item is traced; a bad step or range ends the field. Any thread.
void set_job_field(const char* field, std::uint8_t* slots, int n);

// The start of the field after the one at text; null, traced with the number of the line, when the line is short.
// Any thread.
const char* next_word(const char* text, int lineno);
