// Stores messages for the operator. The scheduler sends each message only once. The messages that `check` or `metrics`
// receives wait here for the same user's next `status`, session or `watch`.
#pragma once

#include "file_lock.h"
#include "report.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace client {

struct endpoint;

// The numbers of messages that a scheduler has sent in all; they only grow.
struct message_totals {
    unsigned long error = 0;
    unsigned long warning = 0;
    unsigned long info = 0;
    unsigned long lost = 0;

    void add(const status_report& report);
};

// The stored messages; `conditions` is not used. `lost` counts messages that the scheduler or the spool has dropped.
struct spool_content {
    status_report waiting;
    message_totals totals;
};

// The stored messages of one scheduler, locked against other processes. Call forget when they were shown; otherwise
// they stay in the spool.
class waiting_messages {
public:
    // path: the file of the spool. lock: its lock, which must be held.
    waiting_messages(std::string path, std::unique_ptr<file_lock> lock);

    const status_report& report() const { return content_.waiting; }
    void forget();

private:
    std::string path_;
    std::unique_ptr<file_lock> lock_;
    spool_content content_;
};

constexpr std::size_t most_spooled = 1000;  // messages; when it is full, the oldest are dropped

class spool {
public:
    // of: the scheduler. Each has its own file in the user's state directory.
    explicit spool(const endpoint& of);

    // Returns true when messages can be stored; else problem gets the reason.
    bool usable(std::string& problem) const;

    // Adds the messages of a report. They are on the disk when this returns. kept gets the new content of the spool.
    // Returns false, with problem, when they could not be stored.
    bool append(const status_report& report, spool_content& kept, std::string& problem) const;

    // Returns what has been counted so far, also while another process holds the lock.
    message_totals totals() const;

    // Returns the stored messages; null when there are none, or when another process has locked them for a second.
    std::unique_ptr<waiting_messages> take() const;

    // Calls `show` with the stored messages (an empty report when there are none), and removes them when it returns
    // true.
    void hand_over(const std::function<bool(const status_report&)>& show) const;

    // The same with a newer report: the stored messages come before its messages.
    void hand_over_with(status_report newer, const std::function<bool(const status_report&)>& show) const;

    // Returns an output for the answer of `status` that writes the stored messages before the first part of the answer.
    std::function<void(std::string_view)> before(std::function<void(std::string_view)> output) const;

private:
    std::string path_;  // empty when there is no state directory
};

}  // namespace client
