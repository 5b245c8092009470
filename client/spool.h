// Messages that were received on behalf of an operator who is not there yet. The scheduler hands each message over
// once; what a check or a collector of metrics was given waits here for the same user's next look at the status.
#pragma once

#include "file_lock.h"
#include "report.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace client {

struct endpoint;

// How many messages have been received for a scheduler in all; they only grow.
struct message_totals {
    unsigned long error = 0;
    unsigned long warning = 0;
    unsigned long info = 0;
    unsigned long lost = 0;

    void add(const status_report& report);
};

// What waits: `conditions` is not used. `lost` counts what the scheduler dropped and what did not fit here.
struct spool_content {
    status_report waiting;
    message_totals totals;
};

// What waits for one scheduler, locked against other processes: it is forgotten once it was shown, else it stays.
class waiting_messages {
public:
    // The lock must be held when this is made, and path is the file of the spool.
    waiting_messages(std::string path, std::unique_ptr<file_lock> lock);

    const status_report& report() const { return content_.waiting; }
    void forget();

private:
    std::string path_;
    std::unique_ptr<file_lock> lock_;
    spool_content content_;
};

constexpr std::size_t most_spooled = 1000;  // messages; the oldest ones go first

class spool {
public:
    // of: the scheduler. One file of the user's state directory for each.
    explicit spool(const endpoint& of);

    // true when messages can be kept; else problem says why not.
    bool usable(std::string& problem) const;

    // Adds the messages of a report; on the disk when this returns. kept: what the spool then holds. false with
    // problem when they could not be kept.
    bool append(const status_report& report, spool_content& kept, std::string& problem) const;

    // What waits; null when nothing does, or when another process has been showing it for a second.
    std::unique_ptr<waiting_messages> take() const;

    // Gives what waits to `show`, an empty report when nothing does, and forgets it when that returned true.
    void hand_over(const std::function<bool(const status_report&)>& show) const;

    // The same with a newer report: what waits comes before its messages.
    void hand_over_with(status_report newer, const std::function<bool(const status_report&)>& show) const;

    // An output for the answer of `status` that writes what waits before the first part of the answer.
    std::function<void(std::string_view)> before(std::function<void(std::string_view)> output) const;

private:
    std::string path_;  // empty: there is no state directory
};

}  // namespace client
