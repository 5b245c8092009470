#include "changes.h"

#include <algorithm>

namespace client {

namespace {

const condition* find(const std::vector<condition>& conditions, const std::string& name) {
    const auto found = std::find_if(conditions.begin(), conditions.end(),
                                    [&](const condition& c) { return c.name == name; });
    return found != conditions.end() ? &*found : nullptr;
}

}  // namespace

std::vector<message> changes(const std::vector<condition>& before, const status_report& report) {
    std::vector<message> lines;
    for (const condition& c : report.conditions) {
        const condition* known = find(before, c.name);
        if (known == nullptr || *known != c) {
            lines.push_back({c.since, "condition " + c.name + " set"});
        }
    }
    for (const condition& c : before) {
        if (find(report.conditions, c.name) == nullptr) {
            lines.push_back({now_date(), "condition " + c.name + " cleared"});
        }
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
