#include "changes.h"

#include <algorithm>
#include <iterator>

namespace client {

namespace {

// By name only: a condition with a new date was set again, and is not cleared.
bool names(const std::vector<condition>& conditions, const std::string& name) {
    return std::any_of(conditions.begin(), conditions.end(),
                       [&](const condition& c) { return c.name == name; });
}

}  // namespace

condition_changes compare(const std::vector<condition>& before, const std::vector<condition>& now) {
    condition_changes result;
    // Name and date are compared: a new date means that the condition was set again.
    std::copy_if(now.begin(), now.end(), std::back_inserter(result.set), [&](const condition& c) {
        return std::find(before.begin(), before.end(), c) == before.end();
    });
    std::copy_if(before.begin(), before.end(), std::back_inserter(result.cleared),
                 [&](const condition& c) { return !names(now, c.name); });
    return result;
}

std::vector<message> changes(const std::vector<condition>& before, const status_report& report) {
    std::vector<message> lines;
    const condition_changes conditions = compare(before, report.conditions);
    for (const condition& c : conditions.set) {
        lines.push_back({c.since, "condition " + c.name + " set"});
    }
    for (const condition& c : conditions.cleared) {
        // The answer has no date for a condition that it no longer lists.
        lines.push_back({now_date(), "condition " + c.name + " cleared"});
    }
    for (const message& m : report.messages) {
        lines.push_back({m.date, "message " + m.text});
    }
    if (report.lost != 0) {
        lines.push_back({now_date(), "lost " + std::to_string(report.lost) + " messages"});
    }
    return lines;
}

}  // namespace client
