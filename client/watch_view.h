// How the live view looks: a picture that is redrawn on a terminal, or one line for each change.
#pragma once

#include "report.h"

#include <deque>
#include <string>
#include <vector>

namespace client {

constexpr std::size_t most_messages = 1000;  // kept for the view; the scheduler hands each over only once

struct watch_picture {
    std::string title;    // host and port
    std::string trouble;  // why there is no connection; empty while there is one
    std::vector<condition> conditions;
    std::deque<message> messages;  // oldest first
};

void draw(const watch_picture& picture);

// Date and text as one line, at once.
void print_line(const message& line);

// One line of foreign text, at once.
void print_text(const std::string& text);

}  // namespace client
