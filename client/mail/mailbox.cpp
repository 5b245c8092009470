#include "mail/mailbox.h"

#include "protocol/limits.h"
#include "protocol/status.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr int max_names = 10;

// The lock file of the connection to this scheduler that a process holds.
std::string held_path(const std::string& key) { return state_directory() + "/live/" + key + ".held"; }

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
void mailbox::name_own(const std::function<bool(const std::string& path)>& make) {
    const std::string live = state_subdirectory("live");
    if (live.empty()) {
        throw std::runtime_error("no directory to store messages: set XDG_STATE_HOME");
    }
    // The parent is the process that people see. The time makes the name one that no earlier process has had.
    const pid_t pid = getppid() > 1 ? getppid() : getpid();
    auto now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
    for (int tries = 0; tries < max_names; ++tries, ++now) {
        char name[32];
        std::snprintf(name, sizeof name, "%d.%08x", static_cast<int>(pid % 10'000'000), static_cast<unsigned>(now));
        if (make(live + name)) {
            name_ = name;
            return;
        }
    }
    throw std::system_error(errno, std::generic_category(), live);
}

void mailbox::open_own() {
    if (own_.is_open()) {
        return;
    }
    name_own([this](const std::string& path) {
        state_file file(path, state_file::access::create_new);
        if (!file.is_open() || !file.lock()) {  // another may take the new file for one of a dead process
            return false;
        }
        own_ = std::move(file);
        return true;
    });
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(state_directory() + "/live", ignored)) {
        is_alive(entry.path().filename());  // removes the files of processes that were killed
    }
}

std::optional<std::string> mailbox::reserve(std::size_t answers) try {
    open_own();
    own_.reserve(answers * room_per_answer);
    return std::nullopt;
} catch (const std::runtime_error& problem) {
    return problem.what();
}

std::string mailbox::store(const std::string& key, const std::string& address, std::vector<status_line>& lines,
                           bool shows) try {
    const auto is_new = [](const status_line& line) { return line.is_message && line.id == 0; };
    if (std::none_of(lines.begin(), lines.end(), is_new)) {
        return "";
    }
    open_own();
    box to = box::open(key);
    std::vector<box::record> records;
    for (const status_line& line : lines) {
        if (is_new(line)) {
            to.counters().totals.add(parse_status(line.text));
            records.push_back({.waits = true,
                               .kind = kind_ == mail_kind::followers ? 'f' : 'o',
                               .owner = shows ? name_ : "",
                               .text = line.text});
        }
    }
    counter_row& counters = to.counters();
    counters.address = address.empty() ? counters.address : address;
    // When the disk is full, or the user's share of it, the reserved room is needed.
    if (!to.append(records) && !(own_.truncate(0) && to.append(records))) {
        throw std::system_error(errno, std::generic_category(), "the box of " + key);
    }
    std::uint64_t id = counters.next_id - records.size();
    for (status_line& line : lines) {
        line.id = is_new(line) ? id++ : line.id;
    }
    has_some_ = has_some_ || shows;
    to.clean();
    return "";
} catch (const std::runtime_error& problem) {
    return problem.what();
}

// True for what no other living process shows, of a kind that this process shows.
bool mailbox::is_for_us(const box::record& r) {
    const bool is_wanted = kind_ == mail_kind::operators || r.kind == 'f';
    return r.waits && is_wanted && (r.owner.empty() || r.owner == name_ || !is_alive(r.owner));
}

std::vector<status_line> mailbox::take(const std::string& key) {
    std::vector<status_line> taken;
    box::each(key, problems_, [&](box& from) {
        open_own();
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
    for (const box::record& r : waiting_records(key)) {
        if (is_for_us(r)) {
            found.push_back({r.id, r.text});
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
void mailbox::leave() try {
    if (has_some_) {
        name_own([this](const std::string& path) { return own_.move_to(path); });
        has_some_ = false;
    }
} catch (const std::runtime_error&) {
    // The messages wait for the end of this process.
}

// Returns how many messages each other living process holds, by the number of the process.
std::map<std::string, std::size_t> mailbox::held_by_others(const std::string& key) {
    std::map<std::string, std::size_t> held;
    for (const box::record& r : waiting_records(key)) {
        if (!r.owner.empty() && r.owner != name_ && is_alive(r.owner)) {
            ++held[r.owner.substr(0, r.owner.find('.'))];
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
    for (const std::string& name : address.empty() ? std::set<std::string>() : keys_of_boxes()) {
        if (name != key && name.ends_with(port) && counters_of(name).address == address && waiting(name) != 0) {
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

state_file hold_connection(const std::string& key, std::chrono::steady_clock::time_point connected_at) {
    // The clock counts from the start of the machine, so processes can compare it.
    char text[21];
    std::snprintf(text, sizeof text, "%020lld", static_cast<long long>(connected_at.time_since_epoch().count()));
    state_file file(held_path(key), state_file::access::create);
    return file.is_open() && file.lock() && file.write_at(0, text) ? std::move(file) : state_file();
}

bool is_held(const std::string& key, std::chrono::steady_clock::time_point before) {
    state_file file(held_path(key), state_file::access::update);
    const long long since = file.is_open() ? std::strtoll(file.read().c_str(), nullptr, 10) : 0;
    // remove_dead() comes last: the holder may have ended since the file was opened. Then no other process gets our
    // messages.
    return since != 0 && since < before.time_since_epoch().count() && !file.remove_dead();
}

void mailbox::remember_login(const std::string& key, bool needed) try {
    box of = box::open(key);
    of.counters().login = needed;
    of.write_counters();
} catch (const std::runtime_error&) {
    // Only means that the password is asked for later.
}
