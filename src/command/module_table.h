// The module list: the command words, and the program that carries out each of them.
#pragma once

#include "util/relaxed.h"

#include <cstddef>
#include <cstdint>

constexpr int module_max = 100;                // entries
constexpr std::size_t module_text_size = 512;  // bytes of a text field, its NUL included
constexpr std::size_t module_line_size =
    511;  // bytes of a line, its NUL included; the rest of a longer one is the next line
static_assert(module_line_size <= module_text_size, "a field of a line always fits its text");

struct module_entry {
    char name[module_text_size];       // command word
    relaxed<std::int32_t> enabled;     // 1 on, 0 off; HMI threads write it (modcntl), all read it, no lock
    char entrypath[module_text_size];  // program under VGD_bin; a leading "-" marks an internal command
    char display[module_text_size];    // a leading "-" hides the entry from the listing
    std::int32_t timeout;              // seconds; below 1 means 60
};

// The table and its number of entries. Start-up fills them; afterwards only enabled changes.
extern module_entry* mod;
extern int mod_max;

// Reads the list at modules_path of st. Returns 0, or -1 when there is no memory or no file. Start-up only.
int read_modules();

// Returns 1 when the word is listed and a program carries it out, else 0.
int is_external(const char* word);

// Returns 1 when the word is listed and the scheduler answers it itself, else 0.
int is_internal(const char* word);

// Returns the program of an external module, relative to VGD_bin; null for any other word.
const char* get_entrypath(const char* word);

// Returns the listed time-out (seconds); 1 for an unlisted word, -1 without a table.
int get_timeout(const char* word);

// Switches a listed word on (1) or off (0); any other state changes nothing. Returns the previous state, or -1 for an
// unlisted word.
int set_module(const char* word, int state);

// Returns 1 when the word is listed and off, else 0. argument (second word of the command line, or null) is not used.
int is_modulebusy(const char* word, const char* argument);

// Writes one line "name on" or "name off" for each entry that is not hidden. Returns 0, or 1 without a table.
int display_modules(int soc);
