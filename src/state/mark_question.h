// Reporting a condition, and what a module's answer does to its mark.
#pragma once

#include "state/status_mark.h"

#include <cstdint>

constexpr int condition_status = 512;  // wait status of exit code 2: the modules' code for "condition present"

// Marks a condition as reported and stamps it with the current time. Any thread.
void set_and_stamp(status_mark& mark);

// What a module's answer does to the mark.
enum class answer_effect {
    condition_sets,                   // condition_status sets it, any other answer changes nothing
    success_clears,                   // 0 clears it, any other answer changes nothing
    condition_sets_and_others_clear,  // condition_status sets it, any other answer clears it
};

// One question to a module: is the condition present? begin and answered are called under com_lock, so that the answers
// take effect in the order in which the modules ran.
class mark_question {
public:
    mark_question(status_mark& mark, answer_effect effect) : mark_(mark), effect_(effect) {}

    // Call just before the module starts: it may not know of reports that come later.
    void begin() { reports_ = mark_.reports; }

    // Applies the module's wait status, or -1, to the mark. It is not cleared when it was reported again since begin.
    void answered(int status);

    // Returns true when the answer has cleared the mark.
    bool has_cleared() const { return has_cleared_; }

private:
    void clear_mark();

    status_mark& mark_;
    const answer_effect effect_;
    std::uint32_t reports_ = 0;
    bool has_cleared_ = false;
};
