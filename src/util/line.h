// Small routines for lines and numbers in texts.
#pragma once

#include <cstddef>

// Removes one trailing newline, if there is one.
void chomp(char* text);

// Reads the first line of a file into buf without its newline, at most size - 1 characters.
// Returns 0, or -1 when the file cannot be opened or is empty. Nothing calls it at present.
int read_one_line_from_file(const char* path, char* buf, std::size_t size);

// Returns the decimal number at the start of text: leading blanks and a sign are allowed, text after the digits is
// ignored, no digits give 0. A value outside the range of int gives the nearest int.
int decimal_value(const char* text);
