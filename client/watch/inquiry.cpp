#include "watch/inquiry.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::size_t kept_messages = 20;

// The requests of a round; the last one is the status. When a scheduler does not know a detail, or has it switched off,
// that part of the snapshot stays as it was.
const std::vector<std::string> questions[] = {{"show", "ip"}, {"modcntl"}, {"debug", "timer"}, {"status"}};

void read_detail(const std::string& word, std::string_view answer, snapshot& known) {
    if (word == "show") {
        // Our own connection does not count.
        known.operators = std::max(0L, static_cast<long>(parse_connections(answer).size()) - 1);
    } else if (word == "modcntl") {
        known.modules = parse_modules(answer);
    } else {
        known.timer_jobs = static_cast<long>(parse_timer_jobs(answer).size());
    }
}

std::vector<event> changes(const std::vector<condition>& before, const std::vector<condition>& now) {
    std::vector<event> all;
    for (const condition& c : now) {
        // Name and date: a new date means that the condition was set again.
        if (std::find(before.begin(), before.end(), c) == before.end()) {
            all.push_back(condition_event(c, true));
        }
    }
    for (const condition& c : before) {
        if (std::none_of(now.begin(), now.end(), [&c](const condition& n) { return n.name == c.name; })) {
            all.push_back(condition_event(c, false));
        }
    }
    return all;
}

}  // namespace

void inquiry::begin(bool with_details) { next_ = with_details ? 0 : std::size(questions) - 1; }

const std::vector<std::string>& inquiry::words() const { return questions[next_]; }

// An answer that broke off lacks conditions, which would look cleared: it changes none.
std::vector<event> inquiry::status(const status_answer& answer) {
    std::vector<event> messages;
    std::vector<event> all;
    std::vector<condition> conditions;
    for (const status_line& line : answer.lines) {
        const status_report report = parse_status(line.text);
        conditions.insert(conditions.end(), report.conditions.begin(), report.conditions.end());
        for (const message& m : report.messages) {
            messages.push_back(message_event(m, line.id));
            known.messages.push_back(m);
        }
        if (report.lost != 0) {
            messages.push_back(lost_event(report.lost, line.id));
        }
    }
    while (known.messages.size() > kept_messages) {
        known.messages.pop_front();
    }
    known.totals = answer.totals;
    if (answer.complete) {
        all = changes(known.conditions, conditions);
        known.conditions = std::move(conditions);
        known.up = true;
        known.failure = 0;
        known.problem.clear();
        known.uptime_minutes = uptime_of(host);
    }
    if (answer.complete && answer.request != 0) {  // else it is the last `status`
        known.answered = wall_clock();
        known.answer_seconds = answer.seconds;
    }
    std::move(messages.begin(), messages.end(), std::back_inserter(all));
    return all;
}

bool inquiry::ended(const command_result& end) {
    const std::string answer = std::exchange(answer_, {});
    const std::string& word = words()[0];
    if (word == "status" || (end.how != outcome::over && end.how != outcome::unsupported && end.how != outcome::busy)) {
        return false;
    }
    if (end.how == outcome::over) {
        read_detail(word, answer, known);
    }
    ++next_;
    return true;
}

void inquiry::failed(const command_result& why) {
    known.up = false;
    known.failure = exit_code_of(why);
    known.problem = describe(why);
    // A counter that falls to 0 and returns would look like growth.
    known.totals = counters_of(key_of(host)).totals;
    known.uptime_minutes = uptime_of(host);
}
