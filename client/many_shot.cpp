#include "many_shot.h"

#include "connection.h"
#include "host_output.h"
#include "json.h"
#include "many_hosts.h"
#include "options.h"
#include "signals.h"
#include "spool.h"
#include "text.h"
#include "words.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

using clock = many_hosts::clock;

constexpr auto json_order_limit = std::chrono::milliseconds(200);  // JSON objects are in order for so long
constexpr std::size_t longest_json_answer = 1 << 20;  // bytes; the largest status is about 140000

int fail(const std::string& problem) {
    std::fprintf(stderr, "schedctl: %s\n", problem.c_str());
    return exit_usage;
}

class many_shot {
public:
    many_shot(const settings& chosen, json_writer convert);
    int run();

private:
    struct host_state {
        printable_text filter;
        std::string kept;  // the answer so far; JSON needs the whole of it
        bool answered = false;
        bool ended = false;
        std::unique_ptr<waiting_messages> waiting;  // stored messages; removed when all is written
    };

    std::string take_waiting(std::size_t host);
    void take(std::size_t host, std::string_view text);
    void ended(std::size_t host, const answer_end& end);
    void written(std::size_t host, const std::string& problem);
    void interrupt();
    void write(std::string_view text);

    const settings& chosen_;
    const json_writer convert_;
    const bool is_status_;
    const bool terminal_ = isatty(STDOUT_FILENO) == 1;
    signal_watch signals_;
    bool interrupted_ = false;
    bool cut_ = false;  // output was dropped after Ctrl-C
    int exit_code_ = 0;
    std::vector<host_state> states_;
    host_output output_;
    many_hosts hosts_;
};

many_shot::many_shot(const settings& chosen, json_writer convert)
    : chosen_(chosen),
      convert_(std::move(convert)),
      is_status_(chosen.words[0] == "status"),
      states_(chosen.hosts.size()),
      output_(
          chosen.hosts, convert_ == nullptr, !chosen.as_it_comes,
          [this](std::string_view text) { write(text); },
          [this](std::size_t host, const std::string& problem) { written(host, problem); }),
      hosts_(chosen.hosts, chosen, chosen.parallel,
             {[this](std::size_t host, std::string_view text) { take(host, text); },
              [this](std::size_t host, const answer_end& end) { ended(host, end); }}) {}

void many_shot::write(std::string_view text) {
    if (!interrupted_ && write_until_signal(text, signals_)) {
        return;
    }
    if (!interrupted_ && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "cannot write");
    }
    interrupted_ = true;
    cut_ = cut_ || !text.empty();
}

// Takes the messages of this host that `check` or `metrics` has stored for this user, as lines of an answer.
std::string many_shot::take_waiting(std::size_t host) {
    if (!is_status_) {
        return "";
    }
    states_[host].waiting = spool(endpoint_of(chosen_.hosts[host])).take();
    return states_[host].waiting != nullptr ? status_lines(states_[host].waiting->report()) : "";
}

void many_shot::written(std::size_t host, const std::string& problem) {
    host_state& state = states_[host];
    // Messages that were not written must stay in the spool.
    if (state.waiting != nullptr && !cut_) {
        state.waiting->forget();
    }
    state.waiting.reset();
    if (!problem.empty()) {
        std::fprintf(stderr, "schedctl: %s: %s\n", chosen_.hosts[host].label.c_str(), problem.c_str());
    }
}

void many_shot::take(std::size_t host, std::string_view text) {
    host_state& state = states_[host];
    if (convert_ == nullptr) {
        const std::string lines =
            (std::exchange(state.answered, true) ? "" : take_waiting(host)) + std::string(text);
        output_.add(host, terminal_ ? state.filter.clean(lines) : lines);
        return;
    }
    state.kept += text;
    if (state.kept.size() > longest_json_answer) {
        ended(host, {ending::closed, "its answer is too long"});
    }
}

void many_shot::ended(std::size_t host, const answer_end& end) {
    host_state& state = states_[host];
    // A host that was given up may still report its end.
    if (state.ended) {
        return;
    }
    state.ended = true;
    hosts_.close(host);
    exit_code_ = std::max(exit_code_, exit_code_of(end));
    const std::string problem = describe(end);
    if (convert_ != nullptr) {
        // The scheduler sends each message only once, so those of an incomplete answer are shown too.
        const bool answered = end.how == ending::over || !state.kept.empty();
        output_.add(host, host_json(chosen_.hosts[host].label,
                                    answered ? convert_(take_waiting(host) + state.kept) : "", problem));
        state.kept = std::string();
    }
    output_.end(host, problem);
}

// Ctrl-C: writes all output that has come, and gives up the hosts that have not finished.
void many_shot::interrupt() {
    interrupted_ = false;
    output_.stop_ordering();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        ended(host, {ending::interrupted});
    }
}

int many_shot::run() {
    const clock::time_point start = clock::now();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        hosts_.ask(host, chosen_.words);
    }
    bool in_order = convert_ != nullptr;
    while (hosts_.is_asking()) {
        pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
        hosts_.step(signal, in_order ? start + json_order_limit : clock::time_point::max());
        // Each object names its host, so the objects of other hosts need not wait long for a late one.
        if (in_order && clock::now() >= start + json_order_limit) {
            in_order = false;
            output_.stop_ordering();
        }
        if (interrupted_ || (signal[0].revents != 0 && signals_.take())) {
            interrupt();
            return 128 + SIGINT;
        }
    }
    return exit_code_;
}

}  // namespace

int run_many_shot(const settings& chosen) {
    std::string line;
    std::string problem;
    if (!join_words(chosen.words, line, problem)) {
        return fail(problem);
    }
    // Its effect ends with the connection, which here is closed after the command.
    if (chosen.words[0] == "ipset") {
        return fail("ipset affects only its own connection; use it in a session");
    }
    const json_writer convert = chosen.json ? json_writer_of(chosen.words) : nullptr;
    if (chosen.json && convert == nullptr) {
        return fail(std::string("--json is for ") + json_commands);
    }
    return many_shot(chosen, convert).run();
}

}  // namespace client
