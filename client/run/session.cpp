#include "run/session.h"

#include "options/options.h"
#include "protocol/words.h"
#include "run/line_editor.h"
#include "run/runner.h"
#include "term/output.h"

#include <cstdio>
#include <iostream>
#include <optional>
#include <unistd.h>

namespace client {

namespace {

void print_help() {
    for (const daemon_word& known : daemon_words()) {
        std::printf("  %-10.*s%.*s\n", static_cast<int>(known.word.size()), known.word.data(),
                    static_cast<int>(known.help.size()), known.help.data());
    }
    std::puts(
        "  help      this list\n"
        "  exit      end the session\n"
        "All other words are modules; modcntl lists them. quit, exit and Ctrl-D end the session.");
    std::fflush(stdout);  // the output of commands goes past this buffer
}

class session {
public:
    session(const settings& chosen, bool at_terminal)
        : chosen_(chosen),
          terminal_(at_terminal),
          runner_(chosen, at_terminal ? [this] { suspend(); } : std::function<void()>()) {}

    int at_terminal() {
        std::puts("(Tab completes, help lists the words, quit or Ctrl-D leaves)");
        runner_.show_stored();
        editor_.emplace(chosen_, runner_);
        std::string line;
        bool has_line = true;
        do {
            has_line = editor_->read(line);
        } while (has_line && run_line(line));
        if (!has_line) {
            std::puts("quit");
        }
        return runner_.finish(0);
    }

    int from_pipe() {
        // Standard output is no terminal here, so there is no prompt.
        if (isatty(STDIN_FILENO) == 1) {
            complain("reading commands from the terminal, one a line; Ctrl-D ends");
        }
        std::string line;
        do {
            // A signal ends the wait for the next line as usual.
            with_usual_signals([&line] { std::getline(std::cin, line); });
        } while (std::cin && run_line(line));
        return runner_.finish(exit_code_);
    }

private:
    void suspend() {
        if (editor_) {
            editor_->suspend();
        }
    }

    // Returns false when the session is over.
    bool run_line(const std::string& line) {
        std::vector<std::string> words;
        if (!split_words(line, words)) {
            complain("a quote is not closed");
            exit_code_ = exit_usage;
            return true;
        }
        if (words.empty()) {
            return true;
        }
        const bool ends = words[0] == "quit" || words[0] == "exit";
        const bool asks_help = words[0] == "help" || words[0] == "?";
        if (!ends && !asks_help) {
            return run(words);
        }
        if (asks_help) {
            print_help();
        }
        exit_code_ = 0;
        return !ends;
    }

    bool run(const std::vector<std::string>& words) {
        if (terminal_) {
            run_at_terminal(words);
            return !runner_.signals().leaving();
        }
        exit_code_ = runner_.run(words);
        // The next lines of a script would also fail, or run without the lock that it held.
        const outcome how = runner_.last().how;
        return how != outcome::closed && how != outcome::unsent && how != outcome::interrupted;
    }

    void run_at_terminal(const std::vector<std::string>& words) {
        const std::size_t before = runner_.given_up_count();
        // The scheduler answers in the order of the requests, so the answer given up earlier comes first.
        if (before != 0) {
            std::puts("(waiting for the answer given up earlier; Ctrl-C takes this command back)");
        }
        runner_.run(words);
        if (runner_.given_up_count() > before) {
            std::puts(before == 0 ? "(its answer, when it comes, will be dropped)" : "(it was not sent)");
        }
        if (const std::string note = runner_.take_note(); !note.empty()) {
            std::printf("(%s)\n", note.c_str());
        }
    }

    const settings& chosen_;
    const bool terminal_;
    command_runner runner_;
    std::optional<line_editor> editor_;
    int exit_code_ = 0;
};

}  // namespace

int run_session(const settings& chosen) {
    const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    session all(chosen, terminal);
    return terminal ? all.at_terminal() : all.from_pipe();
}

}  // namespace client
