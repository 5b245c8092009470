#include "timer/job_table.h"

#include "sched/sched_status.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/line.h"
#include "util/mutex.h"
#include "util/regular_file.h"
#include "util/text.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace {

// The table in force, replaced whole. Innermost lock: held only while the table is copied.
constinit posix_mutex jobs_lock;
job_table jobs GUARDED_BY(jobs_lock);

// Timer thread only.
job_table next_jobs;      // the table being read
std::uint32_t mtime = 0;  // of the job file, as last read
int lineno = 0;           // line being parsed, from 1

// Set once by the timer thread after its first read.
std::atomic<bool> is_loaded = false;

bool is_star(const char* field) {
    return field[0] == '*' && field[1] == ' ';
}

// Fills a cleared record from a line. False when the line is short.
// Day of the month and weekday as in cron: a lone star leaves the decision to the other field; two stars are every
// day; two restrictions are met by either.
bool parse_job(const char* line, job_record& record) {
    const char* field = line;
    set_job_field(field, record.minute, minute_slots);
    if ((field = next_word(field)) == nullptr) {
        return false;
    }
    set_job_field(field, record.hour, hour_slots);
    if ((field = next_word(field)) == nullptr) {
        return false;
    }
    const bool any_mday = is_star(field);
    if (!any_mday) {
        set_job_field(field, record.mday, mday_slots);
    }
    if ((field = next_word(field)) == nullptr) {
        return false;
    }
    set_job_field(field, record.month, month_slots);
    if ((field = next_word(field)) == nullptr) {
        return false;
    }
    if (any_mday || !is_star(field)) {
        set_job_field(field, record.wday, wday_slots);
    }
    if ((field = next_word(field)) == nullptr) {
        return false;
    }
    copy_text(record.command, field);
    return true;
}

// Reads all lines into next_jobs.
void parse_jobs(std::FILE* file) {
    lineno = 0;
    char line[job_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        ++lineno;
        if (line[0] == '#') {
            continue;
        }
        chomp(line);
        job_record& record = next_jobs.job[next_jobs.jmax];
        record = {};
        if (!parse_job(line, record)) {
            record = {};
            continue;
        }
        trprintf("Info:timer:job=%d \"%s\"\n", next_jobs.jmax, line);
        if (++next_jobs.jmax == job_max) {
            trprintf("Warning:timer:job table full, ignore remains\n");
            return;
        }
    }
}

void publish_jobs() {
    const mutex_guard guard(jobs_lock);
    jobs = next_jobs;
}

// Takes the time before the lines are read: a change that comes while we read is then seen at the next look.
std::uint32_t file_mtime(std::FILE* file) {
    struct stat info {};
    if (fstat(fileno(file), &info) != 0) {
        trprintf("Error:failed to stat of timer_jobs. errno=%d\n", errno);
        return static_cast<std::uint32_t>(now_seconds());
    }
    return static_cast<std::uint32_t>(info.st_mtime);
}

void read_job_file() {
    unique_file file = open_regular_for_reading(st->timer_jobs_path);
    if (file == nullptr) {
        trprintf("Error:timer:timer_job %s cannot open.(errno=%d)\n", st->timer_jobs_path, errno);
        publish_jobs();
        return;
    }
    const std::uint32_t time = file_mtime(file.get());
    parse_jobs(file.get());
    file.reset();
    publish_jobs();
    mtime = time;
    trprintf("Info:timer_jobs mtime=%u\n", mtime);
}

}  // namespace

const char* next_word(const char* text) {
    while (*text != '\0' && std::isspace(static_cast<unsigned char>(*text)) == 0) {
        ++text;
    }
    while (*text == ' ') {
        ++text;
    }
    if (std::iscntrl(static_cast<unsigned char>(*text)) != 0) {
        trprintf("Error:timer:job_file:short line at line %d\n", lineno);
        return nullptr;
    }
    return text;
}

void timer_read_jobs() {
    trprintf("Info:timer:read jobs\n");
    next_jobs = {};
    read_job_file();
    is_loaded = true;
    is_loaded.notify_all();
}

std::uint32_t jobs_mtime() {
    return mtime;
}

void copy_jobs(job_table& to) {
    const mutex_guard guard(jobs_lock);
    to = jobs;
}

int is_available_on_timer(const char* name) {
    const mutex_guard guard(jobs_lock);
    for (int i = 0; i < jobs.jmax; ++i) {
        if (std::string_view(jobs.job[i].command).starts_with(name)) {
            return 1;
        }
    }
    return 0;
}

void wait_for_jobs() {
    is_loaded.wait(false);
}

bool is_job_due(const job_record& record, const std::tm& now) {
    return record.minute[now.tm_min] != 0 && record.hour[now.tm_hour] != 0 &&
           record.month[now.tm_mon + 1] != 0 &&
           (record.mday[now.tm_mday] != 0 || record.wday[now.tm_wday] != 0);
}
