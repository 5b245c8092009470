// The mailbox: messages that were received and not shown yet. The scheduler hands each message over once; from then on
// the mailbox is its only owner. It consists of one box for each scheduler (mail/box.h), which all processes of a user,
// or of the package's group, share.
//
// A record in a box belongs to the process that shows it. A process is known by a file of its own, `live/PID.TIME`,
// which it keeps locked; it also reserves room on the disk. When the process ends, in whatever way, the lock ends, and
// its records are anybody's. Boxes are locked only for moments.
#pragma once

#include "mail/box.h"
#include "mail/state_file.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What a follower leaves is for the next follower first: its readers are programs. Operators get it too.
enum class mail_kind { operators, followers };

class mailbox {
public:
    explicit mailbox(mail_kind kind) : kind_(kind) {}
    ~mailbox();

    // Makes sure that so many answers of `status` can be stored. Call before connecting. Returns the reason when not.
    std::optional<std::string> reserve(std::size_t answers);

    // Stores those lines of an answer that are messages and have no number yet, and gives them their numbers. They
    // survive the end of the process. address: of the scheduler, dotted; empty when it is not known. shows: true when
    // this process shows them; otherwise any process may take them at once. Returns why they could not be stored; empty
    // when they are.
    std::string store(const std::string& key, const std::string& address, std::vector<status_line>& lines, bool shows);

    // Takes what other processes have left for this scheduler, oldest first. It stays on the disk until it is shown,
    // and others do not get it before leave() or the end of this process.
    std::vector<status_line> take(const std::string& key);

    // The same without taking it, with what this process has stored.
    std::vector<status_line> look(const std::string& key);

    // For messages that this process has stored or taken. were_shown: true: they leave the mailbox; false:
    // any process may take them at once.
    void settle(const std::string& key, const std::vector<std::uint64_t>& ids, bool were_shown);

    // Number of messages that wait for this scheduler and are not another living process's.
    std::size_t waiting(const std::string& key) { return look(key).size(); }

    // Lines for the operator: messages that a living process holds, messages under another name of the same address,
    // files that cannot be read. Empty when there is nothing to say.
    std::string notice(const std::string& key, const std::string& address);

    // Gives everything that was stored or taken and not shown to others.
    void leave();

    // Whether the last connection to this scheduler had to log in.
    static void remember_login(const std::string& key, bool needed);

private:
    // Both throw std::runtime_error with the reason.
    void name_own(const std::function<bool(const std::string& path)>& make);
    void open_own();
    bool is_for_us(const box::record& r);
    std::map<std::string, std::size_t> held_by_others(const std::string& key);

    const mail_kind kind_;
    bool has_some_ = false;  // records may belong to this process
    state_file own_;
    std::string name_;                                     // of own_, without the directory
    std::vector<std::string> problems_;                    // files that cannot be read
    std::chrono::steady_clock::time_point may_wait_at_{};  // in notice()
};

// Declares that this process holds a connection to this scheduler: one that was made at this time, and whose last
// status does not come. Returns the locked file that says so, to be removed at the end; it is not open when another
// process holds one already.
state_file hold_connection(const std::string& key, std::chrono::steady_clock::time_point connected_at);

// True when another process holds a connection that was made before this time. When that is the time at which
// our connection was begun, the other one gets every message that ours gets.
bool is_held(const std::string& key,
             std::chrono::steady_clock::time_point before = std::chrono::steady_clock::time_point::max());
