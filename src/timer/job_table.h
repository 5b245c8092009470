// The timer job file: five cron-like time fields and a module command line for each job.
#pragma once

#include "util/file_identity.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

constexpr int job_max = 30;
constexpr int minute_slots = 62;
constexpr int hour_slots = 24;
constexpr int mday_slots = 32;
constexpr int month_slots = 13;
constexpr int wday_slots = 7;
constexpr std::size_t job_command_size = 300;  // bytes of a command line, its NUL included
constexpr std::size_t job_line_size = 512;     // bytes of a line, its NUL included; the rest is the next line

// One job. A slot is 1 when its value matches.
struct job_record {
    std::uint8_t minute[minute_slots];  // only 0 to 59 can match
    std::uint8_t hour[hour_slots];
    std::uint8_t mday[mday_slots];    // slot 0 never matches
    std::uint8_t month[month_slots];  // 1 to 12; slot 0 never matches
    std::uint8_t wday[wday_slots];    // 0 is Sunday
    char command[job_command_size];   // module command line
};
static_assert(sizeof(job_record) == 438);

struct job_table {
    job_record job[job_max];
    int jmax;  // jobs in the table
};

// Reads the job file into the table. When the file cannot be opened, the table becomes empty. Timer thread only; other
// threads see the old or the new table, never a part.
void timer_read_jobs();

// Returns the version of the job file at the last read; all zeros when that could not open it. Timer thread only.
const file_identity& jobs_identity();

// Copies the table. Any thread.
void copy_jobs(job_table& to);

// Returns 1 when the command of any job begins with name, else 0. Any thread.
int is_available_on_timer(const char* name);

// Waits until the table has been read once. Main thread, when the timer thread exists.
void wait_for_jobs();

// Returns true when the job's fields match that local time.
bool is_job_due(const job_record& record, const std::tm& now);
