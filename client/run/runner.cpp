#include "run/runner.h"

#include "options/completion.h"
#include "protocol/limits.h"
#include "protocol/login.h"
#include "protocol/words.h"
#include "term/output.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

command_runner::command_runner(const settings& chosen, std::function<void()> suspend)
    : chosen_(chosen),
      once_(!chosen.words.empty()),
      at_terminal_(suspend != nullptr),
      terminal_(isatty(STDOUT_FILENO) == 1),
      convert_(chosen.json ? json_writer_of(chosen.words) : nullptr),
      shows_messages_(!once_ || chosen.words[0] == "status"),
      agent_(chosen.hosts,
             {.connect = chosen.connect,
              .parallel = chosen.parallel,
              .stored = shows_messages_ ? stored_messages::taken : stored_messages::left},
             *this),
      signals_(std::move(suspend)),
      states_(chosen.hosts.size()),
      output_(chosen, std::bind_front(&command_runner::written, this)) {}

int command_runner::run(const std::vector<std::string>& words) {
    words_ = words;
    exit_code_ = 0;
    // The scheduler answers in the order of the requests, so the answer given up earlier comes first.
    if (given_up_ != 0) {
        print_at_terminal("waiting for the answer given up earlier; Ctrl-C takes this command back");
    }
    running_ += states_.size();  // output that a signal has left behind may still wait
    for (std::size_t host = 0; host < states_.size(); ++host) {
        start(host);
    }
    wait();
    print_at_terminal(std::exchange(note_, {}));
    return exit_code_;
}

void command_runner::print_at_terminal(const std::string& note) const {
    if (at_terminal_ && !note.empty()) {
        std::printf("(%s)\n", note.c_str());
    }
}

void command_runner::start(std::size_t host) {
    host_state& state = states_[host];
    state.filter = printable_text();
    std::string line;
    if (const std::optional<std::string> problem = join_words(words_, line)) {
        return finish_host(host, {outcome::invalid, *problem});
    }
    const std::optional<std::string> refused = agent_.needs_password() ? agent_.ask_password(host) : std::nullopt;
    if (!refused) {
        state.request = agent_.ask(host, words_);
    } else if (words_[0] == "status") {
        state.request = agent_.fetch_stored(host, {outcome::login_refused, *refused});
    } else {
        finish_host(host, {outcome::login_refused, *refused});
    }
}

void command_runner::show_stored() {
    words_ = {"status"};
    ++running_;
    states_[0].request = agent_.fetch_stored(0, outcome::over);
    wait();
}

// Waits until the output of all hosts is written.
void command_runner::wait() {
    clock::time_point order_end = states_.size() > 1 ? clock::now() + order_limit : clock::time_point::max();
    while (running_ > 0) {
        output_.write_some();
        pollfd others[] = {{signals_.fd(), POLLIN, 0}, {output_.is_waiting() ? STDOUT_FILENO : -1, POLLOUT, 0}};
        // A module of one host has to wait for a slow reader; with several, the ends of the others must be seen.
        if (states_.size() == 1 && output_.waiting_bytes(0) > max_answer) {
            poll(others, std::size(others), -1);
        } else if (running_ > 0) {
            agent_.step(others, order_end);
        }
        output_.write_some();
        if (others[0].revents != 0 && signals_.take()) {
            interrupt();
            break;
        }
        if (clock::now() >= order_end) {
            order_end = clock::time_point::max();
            output_.stop_ordering();
        }
    }
}

// A signal: gives up all commands, and writes what has come as long as the reader takes it.
void command_runner::interrupt() {
    output_.stop_ordering();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        if (states_[host].request != 0) {
            give_up(host, outcome::interrupted);
        }
    }
    pollfd ready{STDOUT_FILENO, POLLOUT, 0};
    do {
        output_.write_some();
    } while (output_.is_waiting() && poll(&ready, 1, static_cast<int>(order_limit.count())) > 0);
    exit_code_ = 128 + (signals_.leaving() ? SIGTERM : SIGINT);
}

// Its answer, when it comes, belongs to no command.
void command_runner::give_up(std::size_t host, outcome how) {
    ++given_up_;
    agent_.cancel(host, states_[host].request);
    finish_host(host, {how});
}

void command_runner::password_needed(std::size_t host) {
    if (states_[host].request != 0) {
        agent_.ask_password(host);
    } else {
        agent_.refuse_password(host);
    }
}

void command_runner::output(std::size_t host, std::uint32_t request, const std::string& text) {
    host_state& state = states_[host];
    if (state.request != request) {
        return;
    }
    if (convert_ != nullptr || words_[0] == "modcntl") {
        state.kept += text;
    }
    if (convert_ == nullptr) {
        output_.add(host, terminal_ ? state.filter.clean(text) : text);
    }
}

// Shows the lines of an answer when its request is still wanted. Notices about it go to standard error in any case.
void command_runner::status(std::size_t host, const status_answer& answer) {
    const bool is_wanted = answer.request != 0 && answer.request == states_[host].request;
    const std::string label = chosen_.prefix_of(host);
    each_line(answer.notice, [&label](const std::string& line) { complain(label + line); });
    if (!answer.unstored.empty()) {
        complain(label + "cannot store messages: " + answer.unstored);
        if (!is_wanted) {
            print_unstored(host, answer.lines);
        }
    }
    std::vector<std::uint64_t> not_shown;
    for (const status_line& line : answer.lines) {
        if (!is_wanted) {
            not_shown.push_back(line.id);
            continue;
        }
        output(host, answer.request, line.text + "\n");
        if (convert_ != nullptr) {
            states_[host].lines.push_back(line);
        } else {
            output_.mark(host, line.id);
        }
    }
    if (answer.request != 0 && !not_shown.empty()) {
        agent_.put_back(not_shown);  // the request was given up while its answer was on its way
    }
}

// Writes messages that are neither shown nor stored to standard error: the scheduler does not send them again.
void command_runner::print_unstored(std::size_t host, const std::vector<status_line>& lines) const {
    for (const status_line& line : lines) {
        if (line.id == 0 && line.is_message) {
            const std::string text = printable_text().clean(line.text);
            std::fprintf(stderr, "%s%s\n", chosen_.prefix_of(host).c_str(), text.c_str());
        }
    }
}

void command_runner::ended(std::size_t host, std::uint32_t request, const command_result& end) {
    const bool is_wanted = request != 0 && states_[host].request == request;
    if (end.how == outcome::no_answer) {
        return is_wanted ? give_up(host, end.how) : void();
    }
    if (is_wanted) {
        return finish_host(host, end);
    }
    given_up_ -= request != 0 ? 1 : 0;
    if (request == 0 || end.how == outcome::closed) {
        note_ = "the scheduler closed the connection";
    } else if (running_ == 0 && end.how != outcome::interrupted) {
        note_ = "the answer given up earlier is complete";
    }
}

void command_runner::finish_host(std::size_t host, const command_result& end) {
    host_state& state = states_[host];
    state.request = 0;
    state.end = end;
    // A command that is still under way is left to finish().
    if (once_ && end.how != outcome::no_answer && end.how != outcome::interrupted) {
        agent_.close(host);
    }
    const bool over = end.how == outcome::over;
    // One object of JSON without an answer would look like a status.
    if (convert_ != nullptr && (over || chosen_.several)) {
        const std::string object = over || !state.kept.empty() ? convert_(state.kept) : "";
        output_.add(host, chosen_.several ? host_json(chosen_.hosts[host].label, object, describe(end)) : object);
        for (const status_line& line : state.lines) {
            output_.mark(host, line.id);
        }
    } else {
        print_unstored(host, state.lines);
    }
    if (words_ == std::vector<std::string>{"modcntl"} && over) {
        keep_modules(chosen_.hosts[host], state.kept);
    }
    state.kept = std::string();
    exit_code_ = std::max(exit_code_, exit_code_of(end));
    output_.end(host);
}

void command_runner::written(std::size_t host, const std::vector<std::uint64_t>& shown, std::size_t ends) {
    if (!shown.empty()) {
        agent_.shown(shown);
    }
    running_ -= ends;
    for (; ends > 0; --ends) {
        report_end(host);
    }
}

void command_runner::report_end(std::size_t host) const {
    const command_result& end = states_[host].end;
    const std::string text = describe(end);
    // A module that fails says why in its output; its exit code needs no message.
    const bool module_spoke = once_ && !chosen_.several && end.how == outcome::over && end.signal == 0;
    if (text.empty() || module_spoke) {
        return;
    }
    if (at_terminal_) {
        std::printf("[%s]\n", text.c_str());
        if (given_up_ != 0 && (end.how == outcome::no_answer || end.how == outcome::interrupted)) {
            print_at_terminal(given_up_ == 1 ? "its answer, when it comes, will be dropped" : "it was not sent");
        }
        return;
    }
    const bool of_connection =
        end.how == outcome::closed || end.how == outcome::unsent || end.how == outcome::no_answer;
    const host_name& named = chosen_.hosts[host];
    const bool needs_port = of_connection && !chosen_.several;
    complain((needs_port ? named.name + ":" + std::to_string(named.port) + ": " : chosen_.prefix_of(host)) + text);
}

std::string command_runner::absorb() {
    agent_.step({}, clock::now());
    return std::exchange(note_, {});
}

int command_runner::finish(int code) {
    pollfd others[] = {{signals_.fd(), POLLIN, 0}};
    agent_.finish(others);
    std::size_t sum = 0;
    for (const host_state& state : states_) {
        sum += state.waiting;
    }
    if (sum != 0 && isatty(STDERR_FILENO) == 1 && !(once_ && shows_messages_)) {
        std::fprintf(stderr, "%zu new message%s; schedctl status shows %s\n", sum, sum == 1 ? "" : "s",
                     sum == 1 ? "it" : "them");
    }
    return code;
}

int run_command(const settings& chosen) {
    // Its effect ends with the connection, which is closed after the command.
    if (chosen.several && chosen.words[0] == "ipset") {
        throw std::runtime_error("ipset affects only its own connection; use it in a session");
    }
    if (chosen.json && json_writer_of(chosen.words) == nullptr) {
        throw std::runtime_error(std::string("--json is for ") + json_commands);
    }
    command_runner runner(chosen);
    return runner.finish(runner.run(chosen.words));
}
