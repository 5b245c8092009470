#include "session.h"

#include "conversation.h"
#include "line_editor.h"
#include "options.h"
#include "output.h"
#include "report.h"
#include "signals.h"
#include "spool.h"
#include "state_path.h"
#include "text.h"
#include "words.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace client {

namespace {

using word_list = std::vector<std::string>;

// The words that may follow one of the scheduler's own.
constexpr std::pair<const char*, const char*> following[] = {
    {"debug", "timer"}, {"debug", "hmi"}, {"restart", "sched"}, {"show", "ip"}, {"show", "allowed_ip"}};

class session {
public:
    // signals: null when commands come from a pipe.
    session(const settings& chosen, signal_watch* signals)
        : chosen_(chosen), signals_(signals), talk_(chosen, signals) {}
    int at_terminal();
    int from_pipe();

private:
    answer_end run(const word_list& words);
    bool run_line(const std::string& line);
    word_list candidates(const word_list& earlier);
    void load_modules();
    void show_kept() const;

    const settings& chosen_;
    signal_watch* signals_;
    conversation talk_;
    word_list modules_;
    int exit_code_ = 0;
};

answer_end session::run(const word_list& words) {
    const bool terminal = signals_ != nullptr;
    printable_text filter;
    const auto show = [&filter, terminal](std::string_view text) {
        print(terminal ? filter.clean(text) : text);
    };
    // The scheduler answers in the order of the requests, so the answer given up earlier comes first.
    if (terminal && talk_.late()) {
        std::puts("(waiting for the answer given up earlier; Ctrl-C drops it)");
    }
    // The answer is written without stdio, so the buffer of stdio must be flushed before it.
    std::fflush(stdout);
    conversation::sink output = show;
    if (words[0] == "status") {
        // Messages that `check` or `metrics` has received come first.
        output = spool(chosen_.where).before(show);
    }
    answer_end end = talk_.run(words, output);
    const std::string result = describe(end);
    if (!result.empty()) {
        std::fprintf(terminal ? stdout : stderr, terminal ? "[%s]\n" : "schedctl: %s\n", result.c_str());
    }
    if (terminal && talk_.late()) {
        std::puts("(its answer, when it comes, will be dropped)");
    }
    if (terminal && talk_.fd() < 0 && end.how == ending::interrupted) {
        std::puts("(the connection is closed; the next command opens a new one)");
    }
    return end;
}

// Returns false when the session is over.
bool session::run_line(const std::string& line) {
    word_list words;
    if (!split_words(line, words)) {
        std::fputs("schedctl: a quote is not closed\n", stderr);
        exit_code_ = exit_usage;
        return true;
    }
    if (words.empty()) {
        return true;
    }
    const answer_end end = run(words);
    exit_code_ = exit_code_of(end);
    if (signals_ == nullptr && (end.how == ending::closed || end.how == ending::unsent)) {
        return false;  // the next lines of a script would also fail, or run without the lock that it held
    }
    return end.how != ending::goodbye && (signals_ == nullptr || !signals_->leaving());
}

// Loads the words for completion. There is a message when the scheduler cannot be reached, but not when it has no such
// listing.
void session::load_modules() {
    std::string listing;
    printable_text filter;
    const auto collect = [&](std::string_view text) { listing += filter.clean(text); };
    const answer_end end = talk_.run({"modcntl"}, collect);
    if (end.how != ending::over && end.how != ending::unsupported) {
        std::printf("[no completion of module names: %s]\n", describe(end).c_str());
    }
    word_list fields;
    for (std::size_t at = 0, eol = 0; (eol = listing.find('\n', at)) != std::string::npos; at = eol + 1) {
        // A row has two fields, the name and "on" or "off"; any other line is skipped.
        if (split_words(std::string_view(listing).substr(at, eol - at), fields) && fields.size() == 2) {
            modules_.push_back(fields[0]);
        }
    }
}

// Shows messages that `check` or `metrics` has received for this user.
void session::show_kept() const {
    spool(chosen_.where).hand_over([](const status_report& waiting) {
        return write_all(STDOUT_FILENO, printable_text().clean(status_lines(waiting)));
    });
}

word_list session::candidates(const word_list& earlier) {
    word_list words;
    if (earlier.empty()) {
        words = modules_;
        for (const internal_word& known : internal_words) {
            words.emplace_back(known.word);
        }
        std::sort(words.begin(), words.end());
        // A module may have the name of an internal command.
        words.erase(std::unique(words.begin(), words.end()), words.end());
    } else if (earlier[0] == "modcntl") {
        if (earlier.size() == 1) {
            words = modules_;
        }
        if (earlier.size() == 2) {
            words = {"on", "off"};
        }
    } else if (earlier.size() == 1) {
        for (const auto& [word, next] : following) {
            if (earlier[0] == word) {
                words.emplace_back(next);
            }
        }
    }
    return words;
}

int session::at_terminal() {
    std::puts("(Tab completes, quit or Ctrl-D leaves)");
    load_modules();
    show_kept();
    const std::string place = chosen_.where.host + ":" + std::to_string(chosen_.where.port);
    const std::string directory = state_directory();
    // Without a state directory the history is not stored.
    line_editor editor((chosen_.user.empty() ? place : chosen_.user + "@" + place) + "> ",
                       directory.empty() ? "" : directory + "/history", *signals_);
    editor.candidates = [this](const word_list& earlier) { return candidates(earlier); };
    // The scheduler may close the connection while the operator types.
    editor.watched = [this] { return talk_.fd(); };
    editor.readable = [this] { return talk_.absorb(); };
    std::string line;
    for (bool going = true; going;) {
        const line_editor::result got = editor.read(line);
        if (got == line_editor::result::line) {
            going = run_line(line);
        }
        if (got != line_editor::result::end_of_input) {
            continue;
        }
        std::puts("quit");
        // Behind a late answer, `quit` would have to wait for it.
        if (talk_.fd() >= 0 && !talk_.late() && !signals_->leaving()) {
            run({"quit"});
        }
        going = false;
    }
    return 0;
}

int session::from_pipe() {
    // Standard output is no terminal here, so there is no prompt.
    if (isatty(STDIN_FILENO) == 1) {
        std::fputs("schedctl: reading commands from the terminal, one a line; Ctrl-D ends\n", stderr);
    }
    bool going = true;
    for (std::string line; going && std::getline(std::cin, line);) {
        going = run_line(line);
    }
    return exit_code_;
}

}  // namespace

int run_session(const settings& chosen) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        return session(chosen, nullptr).from_pipe();
    }
    signal_watch signals;
    return session(chosen, &signals).at_terminal();
}

}  // namespace client
