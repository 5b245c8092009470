#include "visit.h"

#include "conversation.h"
#include "file_lock.h"
#include "options.h"
#include "state_path.h"
#include "text.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

using steady = std::chrono::steady_clock;

constexpr unsigned usual_limit = 10;  // seconds, when the operator sets none

// A snapshot of a scheduler that could not be asked. failure: the client's exit code for the reason.
snapshot not_up(int failure, std::string problem) {
    snapshot known;
    known.failure = failure;
    known.problem = std::move(problem);
    return known;
}

// false when the conversation ended meanwhile; end then says how.
bool ask_details(conversation& talk, snapshot& known, answer_end& end) {
    for (const detail& one : details()) {
        std::string text;
        end = talk.run(one.words, [&text](std::string_view part) { text += part; });
        if (end.how == ending::over) {
            one.take(text, known);
        } else if (end.how != ending::unsupported) {
            return false;
        }
    }
    return true;
}

// Carries out one visit and returns its report: of a first `status`, and of a second one that is sent with `quit`.
status_report visit(conversation& talk, bool with_details, snapshot& known) {
    answer_end end{ending::over};
    std::string first;
    std::string second;
    if (!with_details || ask_details(talk, known, end)) {
        const steady::time_point begin = steady::now();
        end = talk.run({"status"}, [&first](std::string_view part) { first += part; });
        known.answer_seconds = std::chrono::duration<double>(steady::now() - begin).count();
    }
    if (end.how == ending::over) {
        known.up = true;
        known.answered = wall_clock();
        talk.take_leave([&second](std::string_view part) { second += part; });
    } else {
        known.failure = exit_code_of(end);
        known.problem = describe(end);
    }
    // The scheduler will not send the messages of an incomplete answer again, so they count too.
    status_report report = parse_status(first);
    const status_report late = parse_status(second);
    report.messages.insert(report.messages.end(), late.messages.begin(), late.messages.end());
    report.lost += late.lost;
    return report;
}

// The whole work of the asking process.
[[noreturn]] void ask_and_keep(const settings& chosen, bool with_details, const spool& kept, int result) {
    setsid();  // a monitoring engine may kill the process group of its check, but must not kill this process
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing, fd);  // a reader that waits for the end of our output must not wait for this process
    }
    // This process must not end before it has stored the messages.
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        std::signal(signo, SIG_IGN);
    }
    snapshot known;
    conversation talk(chosen, nullptr, on_silence::wait);
    const status_report report = visit(talk, with_details, known);
    known.conditions = report.conditions;
    spool_content content;
    std::string problem;
    // Messages that cannot be stored go to the caller, which prints them.
    if (!kept.append(report, content, problem)) {
        known.unkept = problem;
        content.waiting.messages = report.messages;
    }
    known.totals = content.totals;
    known.messages = content.waiting.messages;
    if (known.unkept.empty()) {
        keep_newest(known.messages);
    }
    write_all(result, snapshot_text(known));
    _exit(0);
}

// Reads until the end of the pipe; an empty text when that has not come in time.
std::string read_until(int fd, steady::time_point until) {
    std::string text;
    char piece[4096];
    pollfd ready{fd, POLLIN, 0};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady::now()).count();
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) {
            if (left <= 0) {
                return "";
            }
            continue;
        }
        const ssize_t n = read(fd, piece, sizeof piece);
        if (n <= 0) {
            return text;
        }
        text.append(piece, static_cast<std::size_t>(n));
    }
}

snapshot ask(settings chosen, bool with_details) {
    const spool kept(chosen.where);
    std::string problem;
    if (!kept.usable(problem)) {
        return not_up(exit_usage, problem);
    }
    const unsigned limit = chosen.where.timeout != 0 ? chosen.where.timeout : usual_limit;
    const steady::time_point until = steady::now() + std::chrono::seconds(limit);
    // Only one visit at a time: the scheduler would send new messages to both, and both would store them.
    const file_lock turn(state_directory() + "/visit-" + file_name_of(chosen.where) + ".lock", until);
    if (!turn.held()) {
        return not_up(exit_silence, "an earlier visit still waits for the scheduler's answer");
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return not_up(exit_usage, std::generic_category().message(errno));
    }
    chosen.where.timeout = 0;  // the child waits without limit; only this process gives up
    const pid_t child = fork();
    if (child == 0) {
        ask_and_keep(chosen, with_details, kept, ends[1]);
    }
    close(ends[1]);
    const std::string text = child > 0 ? read_until(ends[0], until) : "";
    close(ends[0]);
    return read_snapshot(text).value_or(not_up(exit_silence, "no answer in time"));
}

}  // namespace

const std::vector<detail>& details() {
    static const std::vector<detail> all = {
        {{"show", "ip"},
         [](std::string_view answer, snapshot& known) {
             const std::size_t rows = parse_show_ip(answer).size();
             known.operators = rows > 0 ? rows - 1 : 0;  // without this connection
         }},
        {{"modcntl"},
         [](std::string_view answer, snapshot& known) { known.modules = parse_modules(answer); }},
        {{"debug", "timer"},
         [](std::string_view answer, snapshot& known) {
             known.timer_jobs = parse_timer_jobs(answer).size();
         }},
    };
    return all;
}

void keep_newest(std::vector<message>& messages) {
    if (messages.size() > messages_in_snapshot) {
        messages.erase(messages.begin(), messages.end() - messages_in_snapshot);
    }
}

void report_unkept(const snapshot& known) {
    if (known.unkept.empty()) {
        return;
    }
    std::fprintf(stderr, "schedctl: %s; messages that could not be stored:\n", known.unkept.c_str());
    for (const message& m : known.messages) {
        std::fprintf(stderr, "%s;%s\n", m.date.c_str(), m.text.c_str());
    }
}

snapshot look_at(settings chosen, bool with_details) {
    chosen.user.clear();  // no greeting: it runs a module, and might have to wait for another one
    if (std::optional<snapshot> known = followed_state(chosen.where)) {
        return *known;
    }
    snapshot known = ask(chosen, with_details);
    if (!known.up) {
        // A counter that falls to 0 and returns would look like growth.
        known.totals = spool(chosen.where).totals();
    }
    known.uptime_minutes = uptime_of(chosen.where);
    return known;
}

}  // namespace client
