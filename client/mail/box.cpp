#include "mail/box.h"

#include "protocol/limits.h"
#include "protocol/status.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr const char* counters_format = "%020llu %020lu %020lu %020lu %020lu %d %-15.15s\n";
constexpr std::size_t counters_size = 5 * 21 + 2 + 16;
constexpr const char* record_format = "%c%020llu %c %-16.16s ";
constexpr std::size_t owner_column = 1 + 20 + 3;
constexpr std::size_t text_column = owner_column + 17;
constexpr int max_boxes = 9;  // of one scheduler
constexpr std::size_t clean_above = 512 * 1024;

std::string path_of(const std::string& key, int number) {
    return state_directory() + "/mail/" + key + "." + std::to_string(number) + ".box";
}

// Reads the first line. Returns false when it has another form.
bool read_counters(std::string_view text, counter_row& row) {
    const std::string line(text.substr(0, counters_size));
    std::istringstream columns(line);
    message_totals& t = row.totals;
    columns >> row.next_id >> t.error >> t.warning >> t.info >> t.lost >> row.login >> row.address;
    return line.size() == counters_size && line.back() == '\n' && columns;
}

std::string line_of(const box::record& r) {
    char columns[text_column + 1];
    std::snprintf(columns, sizeof columns, record_format, r.waits ? '+' : '-', static_cast<unsigned long long>(r.id),
                  r.kind, r.owner.c_str());
    return columns + r.text + "\n";
}

bool is_record(std::string_view line) {
    return line.size() >= text_column && (line[0] == '+' || line[0] == '-') &&
           line.find_first_not_of("0123456789", 1) == 21 && line[21] == ' ' && line[23] == ' ' &&
           line[text_column - 1] == ' ';
}

// The paths of the boxes of this scheduler that exist. There is more than one only when one cannot be used.
std::vector<std::string> boxes_of(const std::string& key) {
    std::vector<std::string> paths;
    for (int number = 1; number <= max_boxes; ++number) {
        std::error_code ignored;
        if (std::filesystem::exists(std::filesystem::symlink_status(path_of(key, number), ignored))) {
            paths.push_back(path_of(key, number));
        }
    }
    return paths;
}

}  // namespace

void message_totals::add(const status_report& report) {
    for (const message& m : report.messages) {
        // The first letter of a message's code is its severity.
        ++(m.text.starts_with('E') ? error : m.text.starts_with('W') ? warning : info);
    }
    lost += report.lost;
}

counter_row counters_of(const std::string& key) {
    for (const std::string& path : boxes_of(key)) {
        counter_row row;
        if (read_counters(read_file(path).value_or(""), row)) {
            return row;
        }
    }
    return {};
}

std::vector<box::record> waiting_records(const std::string& key) {
    std::vector<box::record> waiting;
    for (const std::string& path : boxes_of(key)) {
        box from(read_file(path).value_or(""));
        std::copy_if(from.records().begin(), from.records().end(), std::back_inserter(waiting),
                     [](const box::record& r) { return r.waits; });
    }
    return waiting;
}

std::set<std::string> keys_of_boxes() {
    std::set<std::string> keys;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(state_directory() + "/mail", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.ends_with(".box")) {
            keys.insert(name.substr(0, name.size() - std::string_view(".1.box").size()));
        }
    }
    return keys;
}

box::box(std::string_view text) : size_(text.size()) {
    std::size_t at = counters_size;
    if (!read_counters(text, counters_)) {
        counters_ = {};
        has_garbage_ = !text.empty();
        at = text.size();
    }
    while (at < text.size()) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = text.substr(at, end - at);
        if (is_record(line) && end < text.size()) {
            const std::string_view owner = line.substr(owner_column, line.find(' ', owner_column) - owner_column);
            records_.push_back(
                {at, line[0] == '+', {}, line[22], std::string(owner), std::string(line.substr(text_column))});
            std::from_chars(&line[1], &line[21], records_.back().id);
        } else {
            has_garbage_ = true;
        }
        ends_in_a_line_ = end == text.size();
        at = end + 1;
    }
}

box box::open_path(const std::string& path) {
    state_file file(path, state_file::access::create);
    if (!file.is_open()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    if (!file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        throw std::runtime_error(path + ": another process has locked it");
    }
    box opened(file.read());
    opened.file_ = std::move(file);
    return opened;
}

box box::open(const std::string& key) {
    state_subdirectory("mail");
    std::string problem = "each box of " + key + " has another form";
    for (int number = 1; number <= max_boxes; ++number) {
        try {
            box opened = open_path(path_of(key, number));
            // A box with a strange first line is not ours, or another version's.
            if (opened.counters_.next_id != 1 || !opened.has_garbage_) {
                return opened;
            }
        } catch (const std::runtime_error& fault) {
            problem = fault.what();
        }
    }
    throw std::runtime_error(problem);
}

void box::each(const std::string& key, std::vector<std::string>& problems, const std::function<void(box&)>& action) {
    for (const std::string& path : boxes_of(key)) {
        try {
            box opened = open_path(path);
            if (opened.has_garbage_) {
                problems.push_back(path + ": has lines that are no messages");
            }
            action(opened);
        } catch (const std::runtime_error& problem) {
            problems.emplace_back(problem.what());
        }
    }
}

bool box::write_counters() {
    char line[counters_size + 1];
    const message_totals& t = counters_.totals;
    std::snprintf(line, sizeof line, counters_format, counters_.next_id, t.error, t.warning, t.info, t.lost,
                  counters_.login ? 1 : 0, counters_.address.empty() ? "-" : counters_.address.c_str());
    size_ = std::max(size_, counters_size);
    return file_.write_at(0, line);
}

bool box::append(std::vector<record> more) {
    const counter_row counters_before = counters_;
    const std::size_t size_before = size_;
    const std::vector<record*> dropped = oldest_beyond(more.size());
    if (!dropped.empty()) {
        more.insert(more.begin(), count_as_lost(dropped));
    }
    std::string lines = ends_in_a_line_ ? "\n" : "";
    for (record& r : more) {
        r.id = counters_.next_id++;
        lines += line_of(r);
    }
    // The counters first: without the numbers, a later process could use them again.
    if (!write_counters() || !file_.write_at(size_, lines)) {
        const int error = errno;
        counters_ = counters_before;
        size_ = size_before;
        file_.truncate(size_);
        static_cast<void>(size_ == 0 || write_counters());  // else what was dropped counts as lost each time
        errno = error;
        return false;
    }
    for (record* r : dropped) {
        remove(*r);
    }
    size_ += lines.size();
    records_.insert(records_.end(), more.begin(), more.end());
    return true;
}

// The messages that have to go when so many are added, with one more for the record that tells it.
std::vector<box::record*> box::oldest_beyond(std::size_t added) {
    std::vector<record*> waiting;
    for (record& r : records_) {
        if (r.waits) {
            waiting.push_back(&r);
        }
    }
    const std::size_t count = waiting.size() + added;
    waiting.resize(count > max_messages ? std::min(waiting.size(), count - max_messages + 1) : 0);
    return waiting;
}

// Returns the record with the number of all that were dropped so far.
box::record box::count_as_lost(const std::vector<record*>& dropped) {
    unsigned long lost = 0;
    for (const record* r : dropped) {
        const status_report report = parse_status(r->text + "\n");
        lost += report.messages.empty() ? report.lost : 1;
        counters_.totals.lost += report.messages.size();
    }
    return {.waits = true, .text = "W0100: message queue overflow, " + std::to_string(lost) + " messages were lost."};
}

bool box::set_owner(record& of, const std::string& owner) {
    of.owner = owner;
    std::string columns = owner;
    columns.resize(16, ' ');
    return file_.write_at(of.offset + owner_column, columns);
}

bool box::remove(record& shown) {
    shown.waits = false;
    return file_.write_at(shown.offset, "-");
}

void box::clean() {
    const bool is_empty = std::none_of(records_.begin(), records_.end(), [](const record& r) { return r.waits; });
    if (has_garbage_ || size_ == 0 || (!is_empty && size_ <= clean_above)) {
        return;
    }
    std::string lines;
    for (const record& r : records_) {
        lines += r.waits ? line_of(r) : "";
    }
    // Records only move towards the beginning, so a kill in between may double some but loses none.
    if (lines.size() * 2 <= size_ && file_.write_at(counters_size, lines)) {
        size_ = counters_size + lines.size();
        file_.truncate(size_);
    }
}
