#include "conversation.h"

#include "options.h"
#include "words.h"

namespace client {

namespace {

constexpr unsigned answer_timeout = 10;  // seconds, for an answer that waits for no module

void discard(std::string_view) {}

}  // namespace

conversation::conversation(const settings& chosen, signal_watch* signals, on_silence habit)
    : settings_(chosen), habit_(habit), link_(chosen.where, signals), password_(chosen.password_file) {}

answer_end conversation::run(const std::vector<std::string>& words, const sink& output) {
    std::string line;
    answer_end end;
    if (!join_words(words, line, end.reason)) {
        end.how = ending::invalid;
        return end;
    }
    if (late_) {
        // Requests are answered in their order, so the late answer comes first.
        const bool stopped = receive(*late_, discard).how == ending::interrupted;
        late_.reset();
        if (stopped) {
            link_.close();
            return {ending::interrupted};
        }
    }
    if (connect(end)) {
        end = ask(words, output);
    }
    if (end.how == ending::busy) {
        end.reason = why_busy(words[0]);
    }
    // Stopped between several exchanges: the client cannot tell which of the answers come later, so it disconnects.
    if ((end.how == ending::interrupted || end.how == ending::silent) && !late_) {
        link_.close();
    }
    return end;
}

answer_end conversation::resume(const sink& output) {
    answer_end end = receive(*late_, output);
    if (end.how != ending::interrupted && end.how != ending::silent) {
        late_.reset();
    }
    return end;
}

answer_end conversation::take_leave(const sink& output) {
    if (!link_.is_open()) {
        return {ending::closed};
    }
    answer_end end = exchange_line("status\rquit", output);
    if (end.how == ending::over) {
        answer_parser farewell(true);
        receive(farewell, discard);
    }
    link_.close();
    return end;
}

bool conversation::connect(answer_end& problem) {
    if (link_.is_open()) {
        return true;
    }
    unread_.clear();
    served_ = false;
    const opened result = link_.open(problem.reason);
    if (result == opened::connected) {
        return settings_.user.empty() || greet(problem);
    }
    problem.how = result == opened::stopped ? ending::interrupted : ending::closed;
    return false;
}

// Sends the greeting. It does not matter whether the scheduler has a module for it, only whether the login succeeds.
// The greeting may wait long for other modules. So a word that is answered at once is sent first, which detects a
// stalled scheduler.
bool conversation::greet(answer_end& problem) {
    const std::vector<std::string> both[] = {{"show"}, {"hello", settings_.user}};
    for (const std::vector<std::string>& words : both) {
        problem = ask(words, discard);
        late_.reset();  // the connection is closed, so no late answer can come
        if (problem.how == ending::login_refused || problem.how == ending::interrupted ||
            problem.how == ending::invalid || problem.how == ending::silent || !link_.is_open()) {
            link_.close();
            return false;
        }
    }
    return true;
}

// One exchange; when the scheduler requires a login, logs in and repeats it.
answer_end conversation::ask(const std::vector<std::string>& words, const sink& output) {
    answer_end end = exchange(words, output);
    if (end.how == ending::unauth && log_in(end, end)) {
        end = exchange(words, output);
    }
    if (end.how == ending::unauth) {
        end = {ending::login_refused, "the scheduler still requires a login"};
    }
    return end;
}

bool conversation::log_in(const answer_end& challenge, answer_end& problem) {
    std::string reason;
    const std::string line = password_.answer(challenge, settings_.where.host, reason);
    if (line.empty()) {
        problem = {ending::login_refused, reason};
        return false;
    }
    limit_wait("login");
    problem = password_.result_of(exchange_line(line, discard));
    return problem.how == ending::over;
}

// Sets the time-out for the answer to word. Without a limit from the operator, only modules may take long.
void conversation::limit_wait(std::string_view word) {
    if (settings_.where.timeout == 0 && habit_ != on_silence::wait) {
        link_.set_timeout(is_answered_at_once(word) ? answer_timeout : 0);
    }
}

answer_end conversation::exchange(const std::vector<std::string>& words, const sink& output) {
    std::string line;
    answer_end end;
    if (!join_words(words, line, end.reason)) {
        end.how = ending::invalid;
        return end;
    }
    limit_wait(words[0]);
    if (words.size() > 1 && words[0] == "ipset") {
        return exchange_ipset(line, output);
    }
    if (words[0] == "restart") {
        return exchange_restart(line, output);
    }
    answer_parser parser(line == "quit");
    if (!send(line, end)) {
        return end;
    }
    end = receive(parser, output);
    if (end.how == ending::interrupted || (end.how == ending::silent && habit_ == on_silence::resume)) {
        late_ = parser;
    }
    return end;
}

// A successful "ipset" has no answer. So an empty line is sent after it, which always gets one. An unknown word gets
// the same answer as an empty line, so the client first finds out whether "ipset" is known.
answer_end conversation::exchange_ipset(const std::string& line, const sink& output) {
    answer_end end = exchange_line("ipset", discard);
    if (end.how != ending::over) {
        return end;
    }
    if (!send(line, end)) {
        return end;
    }
    end = exchange_line("", output);
    if (end.how == ending::over) {
        // ipset has failed and has an answer of its own; the one to the empty line follows.
        answer_parser of_empty_line;
        receive(of_empty_line, discard);
    } else if (end.how == ending::unsupported || end.how == ending::unauth) {
        end = {ending::over};
    } else if (end.how == ending::closed) {
        end.reason = "the scheduler does not allow this address";
    }
    return end;
}

// The answer to "restart sched" is the end of the connection. The answer to an empty line before it proves that the
// scheduler serves this connection, so that a refused connection is not taken for a restart.
answer_end conversation::exchange_restart(const std::string& line, const sink& output) {
    answer_end end = exchange_line("", discard);
    if (end.how != ending::unsupported) {
        return end;
    }
    if (send(line, end)) {
        end = exchange_line("", output);
    }
    if (end.how == ending::closed) {
        end.how = ending::over;
    }
    link_.close();  // the number of answers still to come depends on the scheduler's module list
    return end;
}

answer_end conversation::exchange_line(std::string_view line, const sink& output) {
    answer_parser parser;
    answer_end problem;
    return send(line, problem) ? receive(parser, output) : problem;
}

bool conversation::send(std::string_view line, answer_end& problem) {
    answer_end unsent{ending::unsent};
    const sent result = link_.send_line(line, unsent.reason);
    if (result == sent::whole) {
        return true;
    }
    problem = result == sent::closed ? lost() : unsent;
    link_.close();
    return false;
}

answer_end conversation::receive(answer_parser& parser, const sink& output) {
    std::string text;
    for (;;) {
        text.clear();
        // Bytes after the end of the answer stay in unread_ for the next one.
        unread_.erase(0, parser.feed(unread_, text));
        if (!text.empty()) {
            output(text);
        }
        if (parser.done()) {
            break;
        }
        const wake woken = link_.wait();
        if (woken == wake::silent && habit_ == on_silence::leave) {
            link_.close();
        }
        if (woken != wake::ready) {
            return {woken == wake::silent ? ending::silent : ending::interrupted};
        }
        unread_ = link_.receive();
        if (unread_.empty()) {
            return lost();
        }
        served_ = true;
    }
    if (parser.end().how == ending::goodbye) {
        link_.close();
    }
    return parser.end();
}

answer_end conversation::lost() {
    link_.close();
    return {ending::closed, why_closed(served_)};
}

std::string conversation::absorb() {
    const std::string_view bytes = link_.receive();
    if (bytes.empty()) {
        late_.reset();
        link_.close();
        return "the scheduler closed the connection";
    }
    if (!late_) {
        return "";
    }
    std::string dropped;
    late_->feed(bytes, dropped);
    if (!late_->done()) {
        return "";
    }
    late_.reset();
    return "the answer given up earlier is complete";
}

}  // namespace client
