// Reads one key from an INI file of the configuration directory.
#pragma once

#include <cstddef>
#include <cstdio>

constexpr std::size_t ini_value_size = 1024;  // bytes of a value, its NUL included
constexpr std::size_t ini_line_size = 1023;   // bytes of a line, its NUL included; the rest is the next line

// Returns the value of key in section (header text with brackets, like "[sched]") of file, a name under VGD_config.
// The first matching line counts. Null when the file cannot be opened or has no such key with a value.
// The value, at most 1023 characters, is valid until the same thread's next call. Any thread.
const char* read_ini_file(const char* file, const char* section, const char* key);

// The same for a file that is open; it is read from its start. After null, std::ferror(file) tells a file that could
// not be read from one that has no such key.
const char* read_ini_stream(std::FILE* file, const char* section, const char* key);
