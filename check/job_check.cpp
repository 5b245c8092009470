#include "job_check.h"

#include "command/dispatch.h"
#include "command/module_table.h"
#include "config_lines.h"
#include "job_fields.h"
#include "job_runs.h"
#include "module_check.h"
#include "state/sched_status.h"
#include "timer/job_table.h"
#include "trace_capture.h"
#include "util/clock.h"
#include "util/text.h"

#include <algorithm>
#include <cstring>

namespace check {

namespace {

struct listed_job {
    int line;
    job_record record;
};

class job_file {
public:
    job_file(bool has_modules, findings& to) : file_(st->timer_jobs_path), has_modules_(has_modules), to_(to) {}

    const std::string& file() const { return file_; }
    const std::vector<listed_job>& jobs() const { return jobs_; }

    void validate(const line_piece& line) {
        scratch().put(line.text);
        copy_text(st->timer_jobs_path, scratch().path());
        timer_read_jobs();
        const std::string trace = take_trace();
        job_table table;
        copy_jobs(table);
        if (trace.find("short line") != std::string::npos) {
            add(line, is_blank(line.text)
                          ? "an empty line is taken for a job that lacks its fields; begin it with #"
                          : "dropped: a field is missing, or a tab stands between two of the time fields");
        } else if (table.jmax == 1) {
            validate_job(line, table.job[0]);
        }
    }

private:
    void add(const line_piece& line, const std::string& text) { to_.add(file_, line.number, text); }

    void validate_job(const line_piece& line, const job_record& job) {
        if (jobs_.size() == job_max) {
            add(line, "dropped: the table holds at most " + std::to_string(job_max) + " jobs");
            return;
        }
        jobs_.push_back({line.number, job});
        for (const std::string& text : validate_fields(line.text)) {
            add(line, text);
        }
        if (next_runs(job, now_seconds(), 1).empty()) {
            add(line, "the job never runs");
        }
        validate_command(line, job.command);
    }

    void validate_command(const line_piece& line, const std::string& command) {
        const std::string given = command_of(line.text);
        if (given.size() > command.size()) {
            add(line, "the command is cut to " + std::to_string(job_command_size - 1) + " characters");
        }
        if (const char last = given.empty() ? 'x' : given.back(); last == ' ' || last == '\t' || last == '\r') {
            add(line, "the blank or control character at the end belongs to the command");
        }
        if (("\t" + given + "\t").find("\t\t") != std::string::npos) {
            add(line, "the command has an empty word: two tabs stand together, or one at its end");
        }
        // The vector's last place is for the null behind the words.
        if (std::ranges::count(command, '\t') + 1 >= vector_size) {
            add(line, "the command has more than " + std::to_string(vector_size - 1) + " words");
        }
        if (has_modules_) {
            validate_module(line, command.substr(0, command.find('\t')));
        }
    }

    void validate_module(const line_piece& line, const std::string& word) {
        if (is_external(word.c_str()) != 0) {
            return;
        }
        const std::string first = word.substr(0, word.find_first_of(" \r"));
        if (is_internal(word.c_str()) != 0) {
            add(line, quoted(word) + " is answered by the scheduler itself; a job cannot run it");
        } else if (first != word && is_external(first.c_str()) != 0) {
            add(line, quoted(word) + " is not a module: the words of a command are separated by one tab each");
        } else {
            const std::string known = nearest(word, module_words());
            add(line, quoted(word) + " is not a module" + (known.empty() ? "" : "; the nearest is " + known));
        }
    }

    std::string file_;
    bool has_modules_;
    findings& to_;
    std::vector<listed_job> jobs_;
};

void print_runs(const std::string& file, const listed_job& job, int runs) {
    std::string command = job.record.command;
    std::ranges::replace(command, '\t', ' ');
    for (const std::time_t t : next_runs(job.record, now_seconds(), runs)) {
        const std::tm local = local_time(t);
        char date[64];
        std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S%z", &local);
        std::printf("%s:%d: runs at %s: %s\n", file.c_str(), job.line, date, printable(command).c_str());
    }
}

}  // namespace

void check_jobs(bool has_modules, int runs, findings& to) {
    job_file jobs(has_modules, to);
    validate_lines(jobs.file(), job_line_size, missing_file::is_finding, to,
                   [&jobs](const line_piece& line) { jobs.validate(line); });
    for (const listed_job& job : jobs.jobs()) {
        print_runs(jobs.file(), job, runs);
    }
}

}  // namespace check
