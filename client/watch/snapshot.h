// The state of one scheduler at one moment, from its answers or from the state file of a follower.
#pragma once

#include "mail/box.h"
#include "net/host_list.h"
#include "protocol/listings.h"
#include "protocol/status.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct snapshot {
    bool up = false;
    int failure = 0;            // exit code that says why it is not up
    std::string problem;        // that reason as text
    double answered = 0;        // time of the newest status, seconds since the epoch; 0: none yet
    double answer_seconds = 0;  // time that the scheduler took to answer
    std::vector<condition> conditions;
    std::vector<message> messages;  // the newest that are known, oldest first
    std::string unkept;             // why received messages could not be stored; they are in `messages`
    message_totals totals;
    std::optional<unsigned long> operators;  // connections without our own
    std::optional<unsigned long> timer_jobs;
    std::optional<unsigned long> uptime_minutes;  // over all starts
    std::vector<module_row> modules;
};

constexpr std::size_t messages_in_snapshot = 20;

// Removes the oldest messages beyond that number.
void keep_newest(std::vector<message>& messages);

// Returns the current time in seconds since the epoch.
double wall_clock();

// Converts to and from one line of JSON; nothing for any other text. Bytes of messages that are not UTF-8 become
// U+FFFD.
std::string snapshot_text(const snapshot& known);
std::optional<snapshot> read_snapshot(std::string_view text);

// Returns the path of the state file for a follower of this scheduler: in $RUNTIME_DIRECTORY if a service manager has
// set it, else in the user's state directory. Empty when there is neither.
std::string state_file_to_write(const host_name& host);

// Replaces the state file with a rename; every user may read it. Readers believe it for twice the interval, in seconds,
// in which its follower renews it: the follower may have ended.
bool write_state_file(const std::string& path, const snapshot& known, double interval, std::string& problem);

// Returns the state that the user's own follower or that of the service has written, if one is running.
std::optional<snapshot> followed_state(const host_name& host);

// Returns the minutes that a scheduler on this host has been up, from its uptime file; nothing for another host.
std::optional<unsigned long> uptime_of(const host_name& host);

}  // namespace client
