// What is known of one scheduler at one moment: the scheduler was asked for it, or a follower left it in its state
// file.
#pragma once

#include "listings.h"
#include "report.h"
#include "spool.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct endpoint;

struct snapshot {
    bool up = false;
    int failure = 0;            // exit code for the reason why it is not up
    std::string problem;        // that reason as text
    double answered = 0;        // seconds since the epoch of the newest status; 0: none yet
    double answer_seconds = 0;  // how long the scheduler took for it
    std::vector<condition> conditions;
    std::vector<message> messages;  // the newest that are known, oldest first
    std::string unkept;  // why messages that were received could not be kept; they are in `messages`
    message_totals totals;
    std::optional<unsigned long> operators;  // connections besides the one that asked
    std::optional<unsigned long> timer_jobs;
    std::optional<unsigned long> uptime_minutes;  // over all starts
    std::vector<module_row> modules;
};

constexpr std::size_t messages_in_snapshot = 20;

// Seconds since the epoch.
double wall_clock();

// One line of JSON each way; nothing for another text. Bytes of messages that are not UTF-8 become U+FFFD.
std::string snapshot_text(const snapshot& known);
std::optional<snapshot> read_snapshot(std::string_view text);

// The state file that a follower of this scheduler writes: in $RUNTIME_DIRECTORY when a service manager gave one,
// else in the user's state directory. Empty when there is neither.
std::string state_file_to_write(const endpoint& where);

// Writes it by rename, readable for everybody. good_until: seconds since the epoch; a reader takes an older file
// for one that was left behind.
bool write_state_file(const std::string& path, snapshot known, double good_until, std::string& problem);

// The state of the user's own follower or of the service's, when one is at work.
std::optional<snapshot> followed_state(const endpoint& where);

// The minutes that a scheduler on this host has been up, from its own file; nothing for another host.
std::optional<unsigned long> uptime_of(const endpoint& where);

}  // namespace client
