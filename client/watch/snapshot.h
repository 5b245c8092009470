// The state of one scheduler at one moment, from its answers or from the state file of a follower.
#pragma once

#include "mail/box.h"
#include "net/host_list.h"
#include "protocol/listings.h"
#include "protocol/status.h"

#include <deque>

struct snapshot {
    bool up = false;
    int failure = 0;            // exit code that says why it is not up
    std::string problem;        // that reason as text
    double answered = 0;        // time of the newest status, seconds since the epoch; 0: none yet
    double answer_seconds = 0;  // time that the scheduler took to answer
    std::vector<condition> conditions;
    std::deque<message> messages;  // the newest that are known, oldest first
    message_totals totals;
    long operators = -1;  // connections without our own; -1: not known, here and below
    long timer_jobs = -1;
    long uptime_minutes = -1;  // over all starts
    std::vector<module_row> modules;

    // Returns the condition with this name; null while it is not set.
    const condition* find(std::string_view name) const;

    // True when it is not known whether the scheduler answers: a fault of this client, its store or its password.
    bool is_own_fault() const;
};

// Returns the current time in seconds since the epoch.
double wall_clock();

// Replaces the state file of a follower in one step. Every user may read it. Readers accept it for twice the interval
// (seconds) in which its follower renews it, because the follower may have ended. Without a
// directory for the file nothing is written. Throws std::runtime_error with the reason when it cannot be written.
void write_state_file(const host_name& host, const snapshot& known, double interval);
void remove_state_file(const host_name& host);

// Returns the state that the user's own follower or that of the service has written, if one is running.
std::optional<snapshot> followed_state(const host_name& host);

// Returns the minutes that a scheduler on this host has been up, from its uptime file; -1 for another host.
long uptime_of(const host_name& host);
