// The state of one scheduler at one moment, from its answers or from the state file of a follower.
#pragma once

#include "mail/box.h"
#include "net/host_list.h"
#include "protocol/listings.h"
#include "protocol/status.h"

#include <optional>
#include <string>
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
    message_totals totals;
    std::optional<unsigned long> operators;  // connections without our own
    std::optional<unsigned long> timer_jobs;
    std::optional<unsigned long> uptime_minutes;  // over all starts
    std::vector<module_row> modules;
};

// Returns the current time in seconds since the epoch.
double wall_clock();

// Replaces the state file of a follower of this scheduler with a rename; every user may read it. Readers believe it for
// twice the interval, in seconds, in which its follower renews it: the follower may have ended. Without a directory for
// the file nothing is written. Returns false with the reason.
bool write_state_file(const host_name& host, const snapshot& known, double interval, std::string& problem);
void remove_state_file(const host_name& host);

// Returns the state that the user's own follower or that of the service has written, if one is running.
std::optional<snapshot> followed_state(const host_name& host);

// Returns the minutes that a scheduler on this host has been up, from its uptime file; nothing for another host.
std::optional<unsigned long> uptime_of(const host_name& host);

}  // namespace client
