#include "watch/changes.h"

#include <algorithm>
#include <iterator>

namespace client {

namespace {

// By name only: a condition with a new date was set again, and is not cleared.
bool contains_name(const std::vector<condition>& conditions, const std::string& name) {
    return std::any_of(conditions.begin(), conditions.end(),
                       [&](const condition& c) { return c.name == name; });
}

}  // namespace

bool is_alarm(const condition& which) {
    return which.name != "confdate" && which.name != "patrol" && which.name != "padiag";
}

condition_changes compare(const std::vector<condition>& before, const std::vector<condition>& now) {
    condition_changes result;
    // Name and date are compared: a new date means that the condition was set again.
    std::copy_if(now.begin(), now.end(), std::back_inserter(result.set), [&](const condition& c) {
        return std::find(before.begin(), before.end(), c) == before.end();
    });
    std::copy_if(before.begin(), before.end(), std::back_inserter(result.cleared),
                 [&](const condition& c) { return !contains_name(now, c.name); });
    return result;
}

status_update update_of(const std::vector<condition>& before, const status_answer& answer) {
    status_update update;
    for (const status_line& line : answer.lines) {
        const status_report report = parse_status(line.text);
        update.conditions.insert(update.conditions.end(), report.conditions.begin(), report.conditions.end());
        for (const message& m : report.messages) {
            update.messages.push_back({line.id, m});
        }
        if (report.lost != 0) {
            const std::string text = std::to_string(report.lost) + " messages were lost";
            update.messages.push_back({line.id, {now_date(), text}, report.lost});
        }
    }
    if (!answer.complete) {
        update.conditions = before;
    }
    update.changes = compare(before, update.conditions);
    return update;
}

}  // namespace client
