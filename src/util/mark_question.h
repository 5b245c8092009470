// Reporting a condition, and clearing it when a module says that it is over.
#pragma once

#include "util/status_mark.h"

#include <cstdint>

// Marks a condition as reported, now. Any thread.
void set_and_stamp(status_mark& mark);

// One question to a module whether a condition is over. Used by the thread that asks.
class mark_question {
public:
    explicit mark_question(status_mark& mark) : mark_(mark) {}

    // The module is started next: it may not see what is reported from now on.
    void begin() { reports_ = mark_.reports; }

    // Clears the mark, unless it was reported again since begin. True when the mark is cleared.
    bool clear_mark();

private:
    status_mark& mark_;
    std::uint32_t reports_ = 0;
};
