#include "timer/job_table.h"

#include "state/sched_status.h"
#include "timer/job_field.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/line.h"
#include "util/mutex.h"
#include "util/regular_file.h"
#include "util/text.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace {

// The current table. A new one replaces it as a whole. No other lock is taken under jobs_lock, which is held only for
// a copy or a search.
constinit posix_mutex jobs_lock;
job_table jobs GUARDED_BY(jobs_lock);

// The version of the job file at the last read. Timer thread only.
file_identity job_file;

// Set once by the timer thread after its first read.
std::atomic<bool> is_loaded = false;

// The state while the job file is read.
struct job_reading {
    job_table table;  // the jobs so far
    int lineno;       // line being parsed, from 1
};

bool is_star(const char* field) { return field[0] == '*' && field[1] == ' '; }

// Fills a cleared record from a line. Returns false when the line is too short.
// Day of the month and weekday work as in cron: when one field is a star, the other decides; when both are stars, every
// day matches; when neither is, a day matches that fits either field.
bool parse_job(const char* text, int lineno, job_record& record) {
    const struct {
        std::uint8_t* slots;
        int count;
    } fields[] = {{record.minute, minute_slots},
                  {record.hour, hour_slots},
                  {record.mday, mday_slots},
                  {record.month, month_slots},
                  {record.wday, wday_slots}};
    bool any_mday = false;
    for (const auto& field : fields) {
        const bool is_mday = field.slots == record.mday;
        any_mday = is_mday ? is_star(text) : any_mday;
        const bool other_decides = is_mday || (field.slots == record.wday && !any_mday);
        if (!other_decides || !is_star(text)) {
            set_job_field(text, field.slots, field.count);
        }
        text = next_word(text, lineno);
        if (text == nullptr) {
            return false;
        }
    }
    copy_text(record.command, text);
    return true;
}

void parse_jobs(std::FILE* file, job_reading& reading) {
    job_table& table = reading.table;
    char line[job_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        ++reading.lineno;
        if (line[0] == '#') {
            continue;
        }
        chomp(line);
        job_record& record = table.job[table.jmax];
        if (!parse_job(line, reading.lineno, record)) {
            record = {};
            continue;
        }
        trprintf("Info:timer:job=%d \"%s\"\n", table.jmax, line);
        if (++table.jmax == job_max) {
            trprintf("Warning:timer:job table full, ignore remains\n");
            return;
        }
    }
}

void publish_jobs(const job_table& table) {
    const mutex_guard guard(jobs_lock);
    jobs = table;
}

// Taken before the lines are read, so that a change during the reading is seen at the next check.
file_identity open_file_identity(std::FILE* file) {
    struct stat info {};
    if (fstat(fileno(file), &info) != 0) {
        trprintf("Error:failed to stat of timer_jobs. errno=%d\n", errno);
        return {now_seconds()};
    }
    return identity_of(info);
}

void read_job_file(job_reading& reading) {
    unique_file file = open_regular_for_reading(st->timer_jobs_path);
    if (file == nullptr) {
        trprintf("Error:timer:timer_job %s cannot open.(errno=%d)\n", st->timer_jobs_path, errno);
        publish_jobs(reading.table);
        job_file = {};  // so that the same file, when it is put back, is read again
        return;
    }
    const file_identity identity = open_file_identity(file.get());
    parse_jobs(file.get(), reading);
    file.reset();
    publish_jobs(reading.table);
    job_file = identity;
    trprintf("Info:timer_jobs mtime=%u\n", static_cast<unsigned>(identity.seconds));
}

}  // namespace

void timer_read_jobs() {
    trprintf("Info:timer:read jobs\n");
    job_reading reading{};
    read_job_file(reading);
    is_loaded = true;
    is_loaded.notify_all();
}

const file_identity& jobs_identity() { return job_file; }

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

void wait_for_jobs() { is_loaded.wait(false); }

bool is_job_due(const job_record& record, const std::tm& now) {
    return record.minute[now.tm_min] != 0 && record.hour[now.tm_hour] != 0 && record.month[now.tm_mon + 1] != 0 &&
           (record.mday[now.tm_mday] != 0 || record.wday[now.tm_wday] != 0);
}
