#include "module_check.h"

#include "command/module_table.h"
#include "config_lines.h"
#include "internal/dispatcher.h"
#include "state/platform.h"
#include "state/sched_status.h"
#include "trace_capture.h"
#include "util/text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace check {

namespace {

// The reason why the daemon cannot run a program; empty when it can.
std::string why_not_executable(const std::string& program) {
    struct stat info {};
    if (stat(program.c_str(), &info) != 0) {
        return errno == ENOENT ? "does not exist" : std::generic_category().message(errno);
    }
    if (!S_ISREG(info.st_mode)) {
        return "is not a regular file";
    }
    return access(program.c_str(), X_OK) == 0 ? "" : "is not executable";
}

// The text from the time-out on, in a line of four fields.
const char* timeout_text(const std::string& line) {
    int start = 0;
    std::sscanf(line.c_str(), "%*s %*s %*s %n", &start);
    return line.c_str() + start;
}

class module_list {
public:
    module_list(std::string bin, findings& to) : file_(st->modules_path), bin_(std::move(bin)), to_(to) {}

    void validate(const line_piece& line) {
        scratch().put(line.text);
        copy_text(st->modules_path, scratch().path());
        read_modules();
        const bool refused = take_trace().find("Warning:modules:invalid line") != std::string::npos;
        if (refused) {
            add(line, "dropped: not a word, a program, a display field and a time-out in seconds");
        } else if (mod_max == 1) {
            validate_entry(line, mod[0]);
        } else if (line.text[0] != '#' && !is_blank(line.text)) {
            add(line, "skipped: an entry begins with a letter from a to z in the first column");
        }
    }

    const std::string& file() const { return file_; }

    // What the list as a whole lacks, once all its lines have been seen.
    void finish() {
        if (first_line_.empty()) {
            to_.add(file_, 1, "the list has no entry: every command is refused");
        } else if (const std::string missing = missing_words(); !missing.empty()) {
            to_.add(file_, 1, "no entry for what the scheduler itself calls:" + missing);
        }
    }

private:
    std::string missing_words() const {
        std::string missing;
        for (const char* word :
             {"allmodcall", "parts", "prognosis", "diag", "devconf", "confchg", "analysis", "qmx", "ehello"}) {
            const bool is_called = word != std::string_view("prognosis") || is_prognosis_platform();
            if (is_called && !first_line_.contains(word)) {
                missing += std::string(" ") + word;
            }
        }
        return missing;
    }

    void add(const line_piece& line, const std::string& text) { to_.add(file_, line.number, text); }

    void validate_entry(const line_piece& line, const module_entry& entry) {
        if (++entries_ > module_max) {
            add(line, "dropped: the list holds at most " + std::to_string(module_max) + " entries");
        }
        const auto [known, is_new] = first_line_.emplace(entry.name, line.number);
        if (!is_new) {
            add(line,
                quoted(entry.name) + " is never found: line " + std::to_string(known->second) + " lists it already");
        }
        validate_timeout(line, entry);
        if (entry.entrypath[0] == '-') {
            if (!is_answered(entry.name)) {
                add(line, quoted(entry.name) + " is no command that the scheduler answers itself");
            }
            return;
        }
        const std::string program = bin_ + "/" + entry.entrypath;
        const std::string reason = bin_.empty() ? "" : why_not_executable(program);
        if (!reason.empty()) {
            add(line, "program " + quoted(program) + " " + reason);
        }
    }

    void validate_timeout(const line_piece& line, const module_entry& entry) {
        const char* text = timeout_text(line.text);
        char* rest = nullptr;
        errno = 0;
        const long value = std::strtol(text, &rest, 10);
        const std::string_view number(text, std::strcspn(text, " \t\r\n"));
        if (errno != 0 || value < 0 || value > INT_MAX) {
            add(line, "time-out " + quoted(number) + " is out of range (0 to " + std::to_string(INT_MAX) + ")");
        } else if (rest != number.data() + number.size()) {
            add(line, "time-out " + quoted(number) + " is read as " + std::to_string(entry.timeout));
        }
        if (const std::string_view more(text + number.size()); !is_blank(more)) {
            add(line, "ignored after the time-out: " + quoted(more.substr(0, more.find('\n'))));
        }
    }

    std::string file_;
    std::string bin_;
    findings& to_;
    int entries_ = 0;
    std::map<std::string, int> first_line_;
};

}  // namespace

bool check_modules(const std::string& bin, findings& to) {
    module_list list(bin, to);
    if (!validate_lines(list.file(), module_line_size, missing_file::is_finding, to,
                        [&list](const line_piece& line) { list.validate(line); })) {
        return false;
    }
    list.finish();
    copy_text(st->modules_path, list.file());
    const bool loaded = read_modules() == 0;
    take_trace();
    return loaded;
}

std::vector<std::string> module_words() {
    std::vector<std::string> words;
    words.reserve(static_cast<std::size_t>(mod_max));
    for (int i = 0; i < mod_max; ++i) {
        words.emplace_back(mod[i].name);
    }
    return words;
}

}  // namespace check
