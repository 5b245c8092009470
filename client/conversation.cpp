#include "conversation.h"

#include "options.h"
#include "words.h"

namespace client {

namespace {

constexpr unsigned live_timeout = 10;  // seconds

void discard(std::string_view) {}

}  // namespace

conversation::conversation(const settings& chosen, signal_watch* signals)
    : settings_(chosen), link_(chosen.where, signals), password_(chosen.password_file) {}

answer_end conversation::run(const std::vector<std::string>& words, const sink& output) {
    if (late_) {
        // Requests are answered in turn, so the answer given up earlier comes first.
        const bool stopped = receive(*late_, discard).how == ending::interrupted;
        late_.reset();
        if (stopped) {
            link_.close();
            return {ending::interrupted};
        }
    }
    answer_end end = connect();
    if (end.how == ending::over) {
        end = ask(words, output);
    }
    if (end.how == ending::busy) {
        end.reason = words[0] == "unlock" ? "the lock is not held here" : "switched off or locked";
    }
    // Stopped in the middle of several exchanges: what is still to come cannot be told apart.
    if (end.how == ending::interrupted && !late_) {
        link_.close();
    }
    return end;
}

answer_end conversation::connect() {
    if (link_.is_open()) {
        return {ending::over};
    }
    unread_.clear();
    answer_end end;
    const wake woken = link_.open(end.reason);
    if (woken != wake::input) {
        end.how = woken == wake::stopped ? ending::interrupted : ending::closed;
        return end;
    }
    // Whether the scheduler has a module for the greeting does not matter here; whether it lets us in does.
    if (!settings_.user.empty()) {
        end = ask({"hello", settings_.user}, discard);
    }
    if (end.how != ending::login_refused && end.how != ending::interrupted && link_.is_open()) {
        end = {ending::over};
    }
    return end;
}

answer_end conversation::ask(const std::vector<std::string>& words, const sink& output) {
    answer_end end = exchange(words, output);
    if (end.how != ending::unauth) {
        return end;
    }
    end = log_in(end);
    if (end.how == ending::over) {
        end = exchange(words, output);
    }
    if (end.how == ending::unauth) {
        end = {ending::login_refused, "the scheduler still wants a login"};
    }
    return end;
}

answer_end conversation::log_in(const answer_end& challenge) {
    answer_end refused{ending::login_refused};
    const std::string line = password_.answer(challenge, settings_.where.host, refused.reason);
    if (line.empty()) {
        return refused;
    }
    answer_end end = exchange_line(line, discard);
    if (end.how == ending::unsupported) {
        refused.reason = "the scheduler does not know the login command";
    } else if (end.how == ending::over && end.code != 0) {
        refused.reason = "wrong password";
    } else {
        return end;
    }
    password_.forget();
    return refused;
}

answer_end conversation::exchange(const std::vector<std::string>& words, const sink& output) {
    std::string line;
    answer_end end;
    if (!join_words(words, line, end.reason)) {
        return end;
    }
    if (words.size() > 1 && words[0] == "ipset") {
        return exchange_ipset(line, output);
    }
    if (words[0] == "restart") {
        return exchange_restart(line, output);
    }
    // `status` waits for no module, so a live view need not take long silence for calm; its greeting may wait.
    if (settings_.watch && settings_.where.timeout == 0) {
        link_.set_timeout(words[0] == "status" ? live_timeout : 0);
    }
    answer_parser parser(line == "quit");
    if (!link_.send_line(line)) {
        return lost();
    }
    end = receive(parser, output);
    if (end.how == ending::interrupted) {
        late_ = parser;
    }
    return end;
}

// A successful "ipset" is answered by silence, so an empty line goes after it, whose answer always comes.
// Whether the word is known is asked first: an unknown word is answered as the empty line is.
answer_end conversation::exchange_ipset(const std::string& line, const sink& output) {
    answer_end end = exchange_line("ipset", discard);
    if (end.how != ending::over) {
        return end;
    }
    if (!link_.send_line(line)) {
        return lost();
    }
    end = exchange_line("", output);
    if (end.how == ending::over) {
        answer_parser of_empty_line;
        receive(of_empty_line, discard);
    } else if (end.how == ending::unsupported || end.how == ending::unauth) {
        end = {ending::over};
    } else if (end.how == ending::closed) {
        end.reason = "the scheduler does not allow this address";
    }
    return end;
}

// "restart sched" is answered by the end of the connection. An empty line before it proves that we are served,
// so that a refused connection is not taken for a restart.
answer_end conversation::exchange_restart(const std::string& line, const sink& output) {
    answer_end end = exchange_line("", discard);
    if (end.how != ending::unsupported) {
        return end;
    }
    end = link_.send_line(line) ? exchange_line("", output) : lost();
    if (end.how == ending::closed) {
        end.how = ending::over;
    }
    link_.close();  // whether one or two answers were due depends on the scheduler's module list
    return end;
}

answer_end conversation::exchange_line(std::string_view line, const sink& output) {
    answer_parser parser;
    return link_.send_line(line) ? receive(parser, output) : lost();
}

answer_end conversation::receive(answer_parser& parser, const sink& output) {
    std::string text;
    for (;;) {
        text.clear();
        unread_.erase(0, parser.feed(unread_, text));
        if (!text.empty()) {
            output(text);
        }
        if (parser.done()) {
            break;
        }
        const wake woken = link_.wait();
        if (woken == wake::time) {
            link_.close();
        }
        if (woken != wake::input) {
            return {woken == wake::time ? ending::silent : ending::interrupted};
        }
        unread_ = link_.receive();
        if (unread_.empty()) {
            return lost();
        }
    }
    if (parser.end().how == ending::goodbye) {
        link_.close();
    }
    return parser.end();
}

answer_end conversation::lost() {
    link_.close();
    return {ending::closed, "the scheduler closed it"};
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
