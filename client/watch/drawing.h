// Draws the live view: of one host with its messages, of many with one line for each host, the worst first.
#pragma once

#include "watch/inquiry.h"

#include <deque>

// A host in a live view.
struct host_row {
    std::string label;
    const snapshot& known;
    std::string since = {};  // date of the start of its outage; empty: it answers, or has not been asked yet
    event newest = {};       // its text is empty before the first
    unsigned long lost = 0;  // messages lost since the view began
};

// A message in the list of a live view.
struct listed_message {
    std::size_t host;
    event what;
};

// Draws the host, a line for the operator (empty: none) and as many of the newest messages as fit. Returns these
// messages; none when the terminal could not be written.
std::vector<event*> draw_host(const host_row& host, const std::string& notice, std::deque<listed_message>& messages);

// The state of the view of many hosts that keys change.
struct host_keys {
    std::string filter;    // show only hosts whose line contains this, in upper or lower case
    bool editing = false;  // the filter is being typed
    std::size_t top = 0;   // lines above the first one shown
    bool quits = false;

    std::size_t page = 20;  // lines that a page key moves; draw_hosts sets it to the number of lines shown

    // Carries out keys, given as the bytes of the terminal.
    void handle(std::string_view keys);

private:
    std::size_t handle_first(std::string_view keys);
};

// Draws as many hosts as fit, below a line for the operator (empty: none). Limits keys.top to the last host, and sets
// keys.page. Returns the newest messages that were on the screen; none when the terminal could not be written.
std::vector<event*> draw_hosts(std::vector<host_row>& rows, const std::string& notice, host_keys& keys);
