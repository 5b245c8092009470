#include "mail/mailbox.h"

#include "mail/state_path.h"
#include "protocol/limits.h"
#include "protocol/status.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

std::string error_text(int error) {
    return std::generic_category().message(error);
}

constexpr int max_names = 10;

// True when the process with this name lives. Removes the file of a process that was killed. Files that
// name_own() has not made are left alone.
bool is_alive(const std::string& owner) {
    static const std::regex form("[0-9]+\\.[0-9a-f]{8}");
    if (!std::regex_match(owner, form)) {
        return false;
    }
    state_file file(state_directory() + "/live/" + owner, state_file::access::update);
    return file.is_open() && !file.remove_dead();
}

}  // namespace

mailbox::~mailbox() {
    if (own_.is_open()) {
        own_.remove();
    }
}

// Calls make with names for a file by which others know that this process lives, until it returns true. Sets name_.
bool mailbox::name_own(const std::function<bool(const std::string& path)>& make, std::string& problem) {
    const std::string live = state_subdirectory("live");
    if (live.empty()) {
        problem = "no directory to store messages: set XDG_STATE_HOME";
        return false;
    }
    // The parent is the process that people see. The time makes the name one that no earlier process has had.
    const pid_t pid = getppid() > 1 ? getppid() : getpid();
    auto now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
    for (int tries = 0; tries < max_names; ++tries, ++now) {
        char name[32];
        std::snprintf(name, sizeof name, "%d.%08x", static_cast<int>(pid % 10'000'000),
                      static_cast<unsigned>(now));
        if (make(live + name)) {
            name_ = name;
            return true;
        }
    }
    problem = live + ": " + error_text(errno);
    return false;
}

bool mailbox::open_own(std::string& problem) {
    const auto make = [this](const std::string& path) {
        own_ = state_file(path, state_file::access::create_new);
        return own_.is_open() && own_.lock();  // another may take the new file for one of a dead process
    };
    if (own_.is_open()) {
        return true;
    }
    if (!name_own(make, problem)) {
        own_ = state_file();
        return false;
    }
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(state_directory() + "/live", ignored)) {
        is_alive(entry.path().filename());  // removes the files of processes that were killed
    }
    return true;
}

std::optional<std::string> mailbox::reserve(std::size_t answers) {
    std::string problem;
    if (!open_own(problem)) {
        return problem;
    }
    const std::size_t wanted = answers * room_per_answer;
    if (wanted > reserved_ && !own_.reserve(reserved_, wanted)) {
        return own_.path() + ": " + error_text(errno);
    }
    reserved_ = std::max(reserved_, wanted);
    return std::nullopt;
}

std::uint64_t mailbox::store(const std::string& key, const std::string& address,
                             const std::vector<std::string>& lines, bool shows, message_totals& totals,
                             std::string& problem) {
    totals = counters_of(key).totals;
    std::optional<box> to = !lines.empty() && open_own(problem) ? box::open(key, problem) : std::nullopt;
    if (!to) {
        return 0;
    }
    std::string text;
    std::vector<box::record> records;
    for (const std::string& line : lines) {
        text += line + "\n";
        records.push_back({0, true, 0, kind_ == mail_kind::followers ? 'f' : 'o', shows ? name_ : "", line});
    }
    counter_row& counters = to->counters();
    counters.totals.add(parse_status(text));
    counters.address = address.empty() ? counters.address : address;
    bool is_stored = to->append(records);
    if (!is_stored && reserved_ != 0) {
        // The disk is full, or the user's share of it: now the reserved room is needed.
        own_.truncate(0);
        reserved_ = 0;
        is_stored = to->append(records);
    }
    if (!is_stored) {
        problem = "the box of " + key + ": " + error_text(errno);
        return 0;
    }
    has_some_ = has_some_ || shows;
    to->clean();
    totals = counters.totals;
    return counters.next_id - lines.size();
}

// True for what no other living process shows, of a kind that this process shows.
bool mailbox::is_for_us(const box::record& r) {
    const bool is_wanted = kind_ == mail_kind::operators || r.kind == 'f';
    return r.waits && is_wanted && (r.owner.empty() || r.owner == name_ || !is_alive(r.owner));
}

std::vector<status_line> mailbox::take(const std::string& key) {
    std::vector<status_line> taken;
    box::each(key, problems_, [&](box& from) {
        if (std::string problem; !open_own(problem)) {
            problems_.push_back(problem);
            return;
        }
        for (box::record& r : from.records()) {
            if (is_for_us(r) && r.owner != name_) {
                from.set_owner(r, name_);
                has_some_ = true;
                taken.push_back({r.id, r.text});
            }
        }
    });
    return taken;
}

std::vector<status_line> mailbox::look(const std::string& key) {
    std::vector<status_line> found;
    for (const std::string& path : boxes_of(key)) {
        box from(read_file(path).value_or(""));
        for (const box::record& r : from.records()) {
            if (is_for_us(r)) {
                found.push_back({r.id, r.text});
            }
        }
    }
    return found;
}

void mailbox::settle(const std::string& key, const std::vector<std::uint64_t>& ids, bool were_shown) {
    std::vector<std::string> ignored;  // take() reports them
    box::each(key, ignored, [&](box& from) {
        for (box::record& r : from.records()) {
            if (r.waits && r.owner == name_ && std::find(ids.begin(), ids.end(), r.id) != ids.end()) {
                static_cast<void>(were_shown ? from.remove(r) : from.set_owner(r, ""));
            }
        }
        from.clean();
    });
}

// Under another name: the owner of the records does not live any more.
void mailbox::leave() {
    std::string problem;  // then the messages wait for the end of this process
    if (has_some_ && name_own([this](const std::string& path) { return own_.move_to(path); }, problem)) {
        has_some_ = false;
    }
}

// Returns how many messages each other living process holds, by the number of the process.
std::map<std::string, std::size_t> mailbox::held_by_others(const std::string& key) {
    std::map<std::string, std::size_t> held;
    for (const std::string& path : boxes_of(key)) {
        box from(read_file(path).value_or(""));
        for (const box::record& r : from.records()) {
            if (r.waits && !r.owner.empty() && r.owner != name_ && is_alive(r.owner)) {
                ++held[r.owner.substr(0, r.owner.find('.'))];
            }
        }
    }
    return held;
}

std::string mailbox::notice(const std::string& key, const std::string& address) {
    std::string text;
    const auto say = [&text](std::size_t count, const std::string& what) {
        text += std::to_string(count) + (count == 1 ? " message " : " messages ") + what + "\n";
    };
    std::map<std::string, std::size_t> held = held_by_others(key);
    // A process that is about to show its messages is not reported, so look again after a moment. With many
    // hosts, a wait for each would delay all of them.
    if (!held.empty() && std::chrono::steady_clock::now() >= may_wait_at_) {
        std::this_thread::sleep_for(held_briefly);
        may_wait_at_ = std::chrono::steady_clock::now() + 10 * held_briefly;
        held = held_by_others(key);
    }
    for (const auto& [pid, count] : held) {
        say(count, "held by process " + pid + ", which has not shown them yet");
    }
    const std::string port = key.substr(key.rfind(':'));
    for (const std::string& name : address.empty() ? std::vector<std::string>() : keys_of_boxes()) {
        if (name != key && name.ends_with(port) && counters_of(name).address == address &&
            waiting(name) != 0) {
            std::string what = "under the name ";
            what.append(name).append("; schedctl -H ").append(name).append(" status shows them");
            say(waiting(name), what);
        }
    }
    for (const std::string& problem : std::exchange(problems_, {})) {
        text += problem + "\n";
    }
    return text;
}

void mailbox::remember_login(const std::string& key, bool needed) {
    std::string problem;
    if (std::optional<box> of = box::open(key, problem)) {
        of->counters().login = needed;
        of->write_counters();  // a failure only means that the password is asked for later
    }
}

}  // namespace client
