// Reporting a condition, and clearing it when a module says that it is over.
#pragma once

#include "util/status_mark.h"

#include <cstdint>

// Marks a condition as reported and stamps it with the current time. Any thread.
void set_and_stamp(status_mark& mark);

// One question to a module: is the condition over? Used by the thread that asks.
class mark_question {
public:
    explicit mark_question(status_mark& mark) : mark_(mark) {}

    // Call just before the module starts: it may not know of reports that come later.
    void begin() { reports_ = mark_.reports; }

    // Clears the mark, unless it was reported again since begin. Returns true when the mark was cleared.
    bool clear_mark();

private:
    status_mark& mark_;
    std::uint32_t reports_ = 0;
};
