// Shows the live view: drawn again and again on a terminal, else one line for each change.
#pragma once

#include "report.h"

#include <deque>
#include <string>
#include <vector>

namespace client {

constexpr std::size_t most_messages = 1000;  // kept for the view, since the scheduler sends each only once

struct watch_picture {
    std::string title;    // host and port
    std::string trouble;  // why there is no connection; empty while there is one
    std::vector<condition> conditions;
    std::deque<message> messages;  // oldest first
};

void draw(const watch_picture& picture);

// Prints date and text as one line, at once.
void print_line(const message& line);

// Prints one line of any text, made printable on a terminal, at once.
void print_text(const std::string& text);

}  // namespace client
