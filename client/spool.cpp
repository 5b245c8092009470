#include "spool.h"

#include "replace_file.h"
#include "state_path.h"

#include <cstdio>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

// A process that keeps the lock for longer waits for the reader of its output.
constexpr std::chrono::seconds longest_turn{1};
// For reading and writing: errors, warnings, information, lost.
constexpr const char* totals_format = "totals %lu %lu %lu %lu\n";

// Reads the spool. The file has one line of totals, then an answer of `status` without conditions. This form keeps all
// bytes of the messages.
spool_content read_spool(const std::string& path) {
    const std::string text = read_file(path).value_or("");
    // parse_status skips the line of totals, which is no line of a status.
    spool_content content{parse_status(text), {}};
    message_totals& t = content.totals;
    if (std::sscanf(text.c_str(), totals_format, &t.error, &t.warning, &t.info, &t.lost) != 4) {
        // sscanf may have set some of the numbers.
        t = {};
    }
    return content;
}

bool write_spool(const std::string& path, const spool_content& content, std::string& problem) {
    const message_totals& t = content.totals;
    // Four numbers of at most 20 digits fit.
    char first[128];
    std::snprintf(first, sizeof first, totals_format, t.error, t.warning, t.info, t.lost);
    // On the disk before it returns, because the scheduler no longer has these messages.
    return replace_file(path, first + status_lines(content.waiting), 0600, true, problem);
}

}  // namespace

void message_totals::add(const status_report& report) {
    for (const message& m : report.messages) {
        // The first letter of a message's code is its severity.
        ++(m.text.starts_with('E') ? error : m.text.starts_with('W') ? warning : info);
    }
    lost += report.lost;
}

waiting_messages::waiting_messages(std::string path, std::unique_ptr<file_lock> lock)
    : path_(std::move(path)), lock_(std::move(lock)), content_(read_spool(path_)) {}

// Called only after the messages were shown: in the worst case they are shown twice, but never lost.
void waiting_messages::forget() {
    content_.waiting = {};
    std::string problem;
    // On a full disk the file can still be removed. Then the counters start anew.
    if (!write_spool(path_, content_, problem) && unlink(path_.c_str()) != 0) {
        std::fprintf(stderr, "schedctl: %s; the messages will be shown again\n", problem.c_str());
    }
}

spool::spool(const endpoint& of) {
    const std::string directory = state_directory();
    if (!directory.empty()) {
        path_ = directory + "/spool-" + file_name_of(of);
    }
}

bool spool::usable(std::string& problem) const {
    if (path_.empty()) {
        problem = "no directory to store messages: set XDG_STATE_HOME";
        return false;
    }
    return file_lock::can_open(path_ + ".lock", problem);
}

bool spool::append(const status_report& report, spool_content& kept, std::string& problem) const {
    if (!usable(problem)) {
        return false;
    }
    // Several checks may run at once. The lock is a separate file, because writing replaces the spool's own.
    const file_lock lock(path_ + ".lock");
    kept = read_spool(path_);
    // Nothing new: the file need not be written.
    if (report.messages.empty() && report.lost == 0) {
        return true;
    }
    std::vector<message>& messages = kept.waiting.messages;
    messages.insert(messages.end(), report.messages.begin(), report.messages.end());
    kept.waiting.lost += report.lost;
    kept.totals.add(report);
    // A user who never reads the messages must not fill the disk.
    if (messages.size() > most_spooled) {
        const std::size_t excess = messages.size() - most_spooled;
        messages.erase(messages.begin(), messages.begin() + static_cast<std::ptrdiff_t>(excess));
        kept.waiting.lost += excess;
        kept.totals.lost += excess;
    }
    return write_spool(path_, kept, problem);
}

message_totals spool::totals() const {
    // No lock is needed: the file is replaced in one step, so a reader never finds a part.
    return read_spool(path_).totals;
}

std::unique_ptr<waiting_messages> spool::take() const {
    // Without a spool there is nothing to lock, and no lock file is created.
    if (path_.empty() || !read_file(path_)) {
        return nullptr;
    }
    auto lock = std::make_unique<file_lock>(path_ + ".lock", std::chrono::steady_clock::now() + longest_turn);
    if (!lock->held()) {
        return nullptr;
    }
    // Read under the lock: another process may have taken the messages meanwhile.
    auto waiting = std::make_unique<waiting_messages>(path_, std::move(lock));
    const status_report& report = waiting->report();
    return report.messages.empty() && report.lost == 0 ? nullptr : std::move(waiting);
}

void spool::hand_over(const std::function<bool(const status_report&)>& show) const {
    hand_over_with({}, show);
}

void spool::hand_over_with(status_report newer, const std::function<bool(const status_report&)>& show) const {
    const std::unique_ptr<waiting_messages> waiting = take();
    if (waiting != nullptr) {
        const status_report& first = waiting->report();
        newer.messages.insert(newer.messages.begin(), first.messages.begin(), first.messages.end());
        newer.lost += first.lost;
    }
    // The lock is held while they are shown, so that no other process shows them too.
    if (show(newer) && waiting != nullptr) {
        waiting->forget();
    }
}

std::function<void(std::string_view)> spool::before(std::function<void(std::string_view)> output) const {
    // A copy of the spool, because the output may outlive it.
    return [kept = *this, output = std::move(output), first = true](std::string_view part) mutable {
        if (std::exchange(first, false)) {
            kept.hand_over([&output](const status_report& waiting) {
                const std::string lines = status_lines(waiting);
                if (!lines.empty()) {
                    output(lines);
                }
                return true;
            });
        }
        output(part);
    };
}

}  // namespace client
