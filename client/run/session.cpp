#include "run/session.h"

#include "mail/state_path.h"
#include "options/completion.h"
#include "options/options.h"
#include "protocol/words.h"
#include "run/line_editor.h"
#include "run/runner.h"
#include "term/output.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace client {

namespace {

using word_list = std::vector<std::string>;

void print_help() {
    for (const daemon_word& known : daemon_words()) {
        std::printf("  %-10.*s%.*s\n", static_cast<int>(known.word.size()), known.word.data(),
                    static_cast<int>(known.help.size()), known.help.data());
    }
    std::puts(
        "  help      this list\n"
        "  exit      end the session\n"
        "All other words are modules; modcntl lists them. quit, exit and Ctrl-D end the session.");
    std::fflush(stdout);
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
        const host_name& host = chosen_.hosts[0];
        const std::string& user = chosen_.connect.user;
        const std::string prompt =
            (user.empty() ? "" : user + "@") + host.name + ":" + std::to_string(host.port) + "> ";
        // Without a directory the history is not stored.
        const std::string directory = private_directory();
        const std::string history = directory.empty() ? "" : directory + "/history";
        editor_ = std::make_unique<line_editor>(prompt, history, runner_);
        editor_->candidates = [this](const word_list& earlier) { return candidates(earlier); };
        std::string line;
        for (bool going = true; going;) {
            const line_editor::result got = editor_->read(line);
            if (got == line_editor::result::line) {
                going = run_line(line);
            } else if (got == line_editor::result::end_of_input) {
                std::puts("quit");
                going = false;
            }
        }
        editor_.reset();
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
        if (editor_ != nullptr) {
            editor_->suspend();
        }
    }

    // Returns false when the session is over.
    bool run_line(const std::string& line) {
        word_list words;
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

    bool run(const word_list& words) {
        if (terminal_) {
            run_at_terminal(words);
            return !runner_.signals().leaving();
        }
        exit_code_ = runner_.run(words);
        // The next lines of a script would also fail, or run without the lock that it held.
        const outcome how = runner_.last().how;
        return how != outcome::closed && how != outcome::unsent && how != outcome::interrupted;
    }

    void run_at_terminal(const word_list& words) {
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

    word_list candidates(const word_list& earlier) const {
        word_list words = words_after(earlier, kept_modules(chosen_.hosts));
        if (earlier.empty()) {
            words.insert(words.end(), {"help", "exit"});
        }
        return words;
    }

    const settings& chosen_;
    const bool terminal_;
    std::unique_ptr<line_editor> editor_;
    command_runner runner_;
    int exit_code_ = 0;
};

}  // namespace

int run_session(const settings& chosen) {
    const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    session all(chosen, terminal);
    return terminal ? all.at_terminal() : all.from_pipe();
}

}  // namespace client
