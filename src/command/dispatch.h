// Every module command of the scheduler, whoever issues it, one at a time.
#pragma once

#include "comm/hmi_table.h"
#include "command/com_lock.h"
#include "util/mark_question.h"

#include <cstddef>

constexpr std::size_t command_line_size = 16384;  // bytes of a command line, its NUL included
constexpr int argument_max = 15;                  // arguments of a command line
constexpr int vector_size = argument_max + 1;     // and the null behind them

constexpr int condition_status =
    512;  // wait status of exit code 2: the modules' code for "condition present"

// Empties the queue of parked commands and prepares what the child-process runner needs. Returns 0, or -1 when memory is short.
// Start-up only, before any other thread.
int init_command();

// The first position at or after text that holds a TAB or the end.
char* skip_non_delimiter(char* text);

// The number of arguments a command line has: its TABs plus one.
int count_arguments(const char* line);

// Cuts text at its TABs and fills the vector and its null entry. At most 15 arguments are stored; what follows the
// last of them is dropped. Returns how many arguments the text has, which is more than count when some were dropped.
int split_to_token(char* text, int& count, char* (&vector)[vector_size]);

// Runs one module command now. hmi: receives output and terminating line, or null. capture: see start_command.
// Returns the wait status, or -1 when the command was refused or could not be started.
int do_command2(hmistruc* hmi, const char* line, char* capture, int capture_size) REQUIRES(com_lock);

// Runs a module command. Number 0 waits for com_lock; 1 to 30 (timer jobs) parks the line, at most 299 characters,
// when another command runs. question, or null, begins when the command's turn has come. Returns the wait status, or
// -1 when refused, parked or dropped. Any thread.
int do_command(hmistruc* hmi, const char* line, int number, mark_question* question = nullptr);

// Runs a module command without an HMI, its output in buffer (or dropped when null), after waiting for com_lock.
// question as for do_command. Returns the wait status or -1. Any thread.
int do_command_with_buffer(const char* line, char* buffer, int size, mark_question* question = nullptr);

// The same for the command that stops the suite, its output dropped. Keeps com_lock, so that nothing starts behind it
// but what timer jobs parked meanwhile: the caller must end the process. Any thread; a second caller waits for that
// end.
void do_last_command(const char* line) ACQUIRE(com_lock);
