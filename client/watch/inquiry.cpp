#include "watch/inquiry.h"

#include <algorithm>
#include <iterator>

namespace client {

namespace {

constexpr std::size_t kept_messages = 20;

// The requests of a round; the last one is the status. When a scheduler does not know a detail, or has it switched off,
// that part of the snapshot stays as it was.
struct question {
    std::vector<std::string> words;
    void (*read)(std::string_view answer, snapshot& known);
};

const std::vector<question>& questions() {
    static const std::vector<question> all = {
        {{"show", "ip"},
         [](std::string_view answer, snapshot& known) {
             known.operators =
                 std::max(0L, std::ssize(parse_show_ip(answer)) - 1);  // without this connection
         }},
        {{"modcntl"},
         [](std::string_view answer, snapshot& known) { known.modules = parse_modules(answer); }},
        {{"debug", "timer"},
         [](std::string_view answer, snapshot& known) {
             known.timer_jobs = std::ssize(parse_timer_jobs(answer));
         }},
        {{"status"}, nullptr},
    };
    return all;
}

void compare(const std::vector<condition>& before, const std::vector<condition>& now, status_update& update) {
    // Name and date: a new date means that the condition was set again, so it is not cleared.
    std::copy_if(now.begin(), now.end(), std::back_inserter(update.set), [&](const condition& c) {
        return std::find(before.begin(), before.end(), c) == before.end();
    });
    std::copy_if(before.begin(), before.end(), std::back_inserter(update.cleared), [&](const condition& c) {
        return std::none_of(now.begin(), now.end(), [&](const condition& n) { return n.name == c.name; });
    });
}

}  // namespace

void inquiry::begin(bool with_details) {
    next_ = with_details ? 0 : questions().size() - 1;
    answer_.clear();
}

const std::vector<std::string>& inquiry::words() const {
    return questions()[next_].words;
}

// An answer that broke off lacks conditions, which would look cleared: it changes none.
status_update inquiry::status(const status_answer& answer) {
    status_update update;
    std::vector<condition> conditions;
    for (const status_line& line : answer.lines) {
        const status_report report = parse_status(line.text);
        conditions.insert(conditions.end(), report.conditions.begin(), report.conditions.end());
        for (const message& m : report.messages) {
            update.messages.push_back({line.id, m});
            known.messages.push_back(m);
        }
        if (report.lost != 0) {
            const std::string text = std::to_string(report.lost) + " messages were lost";
            update.messages.push_back({line.id, {now_date(), text}, report.lost});
        }
    }
    const std::size_t dropped = known.messages.size() - std::min(known.messages.size(), kept_messages);
    known.messages.erase(known.messages.begin(),
                         known.messages.begin() + static_cast<std::ptrdiff_t>(dropped));
    known.totals = answer.totals;
    if (answer.complete) {
        compare(known.conditions, conditions, update);
        known.conditions = std::move(conditions);
        known.up = true;
        known.failure = 0;
        known.problem.clear();
        known.uptime_minutes = uptime_of(host);
    }
    if (answer.complete && !answer.last) {
        known.answered = wall_clock();
        known.answer_seconds = answer.seconds;
    }
    return update;
}

bool inquiry::ended(const command_result& end) {
    const auto read = questions()[next_].read;
    if (read == nullptr ||
        (end.how != outcome::over && end.how != outcome::unsupported && end.how != outcome::busy)) {
        return false;
    }
    if (end.how == outcome::over) {
        read(answer_, known);
    }
    answer_.clear();
    ++next_;
    return true;
}

void inquiry::failed(const command_result& why) {
    known.up = false;
    known.failure = exit_code_of(why);
    known.problem = describe(why);
    known.totals =
        counters_of(key_of(host)).totals;  // a counter that falls to 0 and returns looks like growth
    known.uptime_minutes = uptime_of(host);
}

}  // namespace client
