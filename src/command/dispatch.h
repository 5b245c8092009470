// Runs all module commands of the scheduler, one at a time.
#pragma once

#include "comm/hmi_table.h"
#include "command/com_lock.h"
#include "state/mark_question.h"

#include <cstddef>

constexpr std::size_t command_line_size = 16384;  // bytes of a command line, its NUL included
constexpr int argument_max = 15;                  // arguments of a command line
constexpr int vector_size = argument_max + 1;     // with the null at the end

// Empties the queue of parked commands and allocates the environment for module programs. Returns 0, or -1 when memory
// is short. Start-up only, before any other thread.
int init_command();

// Returns the first TAB at or after text, or the end of text.
char* skip_non_delimiter(char* text);

// Returns the number of arguments of a command line: its TABs plus one.
int count_arguments(const char* line);

// Splits text at its TABs into the vector, which ends with a null. Stores count arguments, at most 15; further ones are
// dropped. Returns how many arguments the text has, which is more than count when some were dropped.
int split_to_token(char* text, int& count, char* (&vector)[vector_size]);

// Runs one module command now. hmi, or null, receives the output and the terminating line. capture: see start_command.
// Returns the wait status, or -1 when the command was refused or could not be started.
int do_command2(hmistruc* hmi, const char* line, char* capture, int capture_size) REQUIRES(com_lock);

// Runs a module command. With number 0 it waits for com_lock. With 1 to 30 (timer jobs) it never waits: while another
// command runs, it parks the line (at most 299 characters), or drops it when that job already has a parked line.
// question, or null, begins just before the command starts, and gets its answer before another command can start.
// Returns the wait status, or -1 when the command was refused, parked or dropped. Any thread.
int do_command(hmistruc* hmi, const char* line, int number, mark_question* question = nullptr);

// Waits for com_lock and runs a module command without an HMI. The output goes to buffer, or is dropped when that is
// null. question as for do_command. Returns the wait status or -1. Any thread.
int do_command_with_buffer(const char* line, char* buffer, int size, mark_question* question = nullptr);

// The same for the command that stops the suite; its output is dropped. Keeps com_lock, so that only the commands that
// timer jobs parked meanwhile run after it. The caller must end the process. Any thread; a second caller waits until
// the process ends.
void do_last_command(const char* line) ACQUIRE(com_lock);
