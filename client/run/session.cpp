#include "run/session.h"

#include "mail/state_file.h"
#include "options/completion.h"
#include "options/options.h"
#include "protocol/limits.h"
#include "protocol/words.h"
#include "run/runner.h"
#include "term/output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <editline/readline.h>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace {

void print_help() {
    for (const daemon_word& known : daemon_words) {
        std::printf("  %-10.*s%.*s\n", static_cast<int>(known.word.size()), known.word.data(),
                    static_cast<int>(known.help.size()), known.help.data());
    }
    std::puts(
        "  help      this list\n"
        "  exit      end the session\n"
        "All other words are modules; modcntl lists them. quit, exit and Ctrl-D end the session.");
    std::fflush(stdout);  // the output of commands goes past this buffer
}

constexpr int history_size = 1000;  // lines that a session offers, and that a trimmed file keeps
constexpr std::uintmax_t longest_history_file = 256UL * 1024;  // bytes; a longer file is trimmed

constexpr int control_c = 3;

class line_editor;
line_editor* editor = nullptr;  // the library's callbacks have no argument for it

// Calls action while the history file is locked against other sessions. A file that is missing is created. One that is
// no regular file, or stays locked by a session that was stopped while it ended, is not used: the session then works
// without it. The same holds for an empty path.
void with_history_file(const std::string& path, const std::function<void()>& action) {
    state_file file(path, state_file::access::create);
    if (file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        action();
    }
}

// The line of a session at a terminal: history, completion, and a prompt that also watches the connection. Uses the
// interface of libedit that is like readline's: it has the history file and the completion.
class line_editor {
public:
    // Only one may exist, because the library has one line. Reads the history from its file, to which the destructor
    // appends the typed lines. Without a directory for it the history is kept only for the session.
    line_editor(const settings& chosen, command_runner& runner) : chosen_(chosen), runner_(runner) {
        const host_name& host = chosen.hosts[0];
        const std::string& user = chosen.connect.user;
        prompt_ = (user.empty() ? "" : user + "@") + host.name + ":" + std::to_string(host.port) + "> ";
        const std::string directory = private_directory();
        history_path_ = directory.empty() ? "" : directory + "/history";
        editor = this;
        rl_readline_name = "schedctl";
        rl_catch_signals = 0;
        rl_getc_function = next_char;
        rl_attempted_completion_function = candidates;
        rl_basic_word_break_characters = " \t";
        rl_initialize();
        const auto interrupt = [](int, int) {
            editor->interrupted_ = true;
            std::fputs("^C\n", stdout);
            return rl_done = 1;
        };
        rl_add_defun("schedctl-interrupt", interrupt, control_c);
        stifle_history(history_size);
        with_history_file(history_path_, [this] { read_history(history_path_.c_str()); });
    }

    ~line_editor() {
        // Only the lines of this session are appended: others may have written lines meanwhile.
        with_history_file(history_path_, [this] {
            const char* const path = history_path_.c_str();
            clear_history();
            std::for_each(typed_.begin(), typed_.end(), [](const std::string& line) { add_history(line.c_str()); });
            append_history(history_size, path);
            std::error_code ignored;
            if (const auto size = std::filesystem::file_size(path, ignored); !ignored && size > longest_history_file) {
                clear_history();
                read_history(path);
                write_history(path);
            }
        });
    }

    line_editor(const line_editor&) = delete;
    line_editor& operator=(const line_editor&) = delete;

    // Reads one line without its line feed and puts it into the history; after Ctrl-C the line is empty.
    // While the operator types, a late answer may come, or the scheduler may close the connection; the note
    // about it is shown above the prompt. Returns false at the end of the input, and after a signal that ends
    // the session.
    bool read(std::string& line) {
        interrupted_ = false;
        reading_ = true;
        const std::unique_ptr<char, void (*)(void*)> typed(readline(prompt_.c_str()), std::free);
        reading_ = false;
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        line = typed != nullptr ? typed.get() : "";
        const bool is_again = !typed_.empty() && line == typed_.back();
        if (line.find_first_not_of(' ') != std::string::npos && !is_again) {
            typed_.push_back(line);
            add_history(line.c_str());
        }
        // Ctrl-C ends the line like the end of the input.
        return typed != nullptr || (interrupted_ && !runner_.signals().leaving());
    }

    // Stops the process as Ctrl-Z usually does. When it continues, the terminal is set up and the prompt drawn again.
    void suspend() {
        if (reading_) {
            rl_deprep_terminal();
        }
        with_usual_signals([] { std::raise(SIGTSTP); });
        if (reading_) {
            rl_prep_terminal(1);
            rl_forced_update_display();
        }
    }

private:
    // Returns true when a key can be read, false when a signal stopped the wait.
    bool wait_for_key() {
        signal_watch& signals = runner_.signals();
        for (;;) {
            pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {signals.fd(), POLLIN, 0}, {runner_.fd(), POLLIN, 0}};
            if (poll(ready, 3, -1) < 0) {
                continue;
            }
            if (ready[1].revents != 0 && signals.take()) {
                return false;
            }
            if (signals.resized()) {
                rl_resize_terminal();
            }
            if (const std::string text = ready[2].revents != 0 ? runner_.absorb() : ""; !text.empty()) {
                // The row with the prompt is cleared, and drawn again below the text.
                std::printf("\r\033[K(%s)\n", text.c_str());
                rl_forced_update_display();
            }
            if (ready[0].revents != 0) {
                return true;
            }
        }
    }

    // Replaces libedit's reader, which waits only for the keyboard. An exception must not pass through the library: it
    // ends the line, and the library restores the terminal.
    static int next_char(std::FILE*) {
        try {
            return editor->typed_char();
        } catch (...) {
            editor->failure_ = std::current_exception();
            return -1;
        }
    }

    // A signal is returned as if its key had been typed. Returns a wide character; -1 at the end of the input.
    int typed_char() {
        std::mbstate_t state{};
        for (;;) {
            if (!wait_for_key()) {
                return runner_.signals().leaving() ? -1 : control_c;
            }
            char byte = 0;
            if (::read(STDIN_FILENO, &byte, 1) <= 0) {
                return -1;
            }
            wchar_t wide = 0;
            const std::size_t length = std::mbrtowc(&wide, &byte, 1, &state);
            if (length <= 1) {
                return static_cast<int>(wide);
            }
            // A character may come in several bytes; state keeps the first ones.
            if (length == static_cast<std::size_t>(-1)) {
                state = {};  // not of this locale: dropped
            }
        }
    }

    // Called for the word that begins at `start`. Never completes the names of files.
    static char** candidates(const char* word, int start, int /*end*/) {
        static std::vector<std::string> fitting;  // for `next`, which has no argument for it
        std::vector<std::string> earlier;
        split_words(std::string_view(rl_line_buffer).substr(0, static_cast<std::size_t>(start)), earlier);
        fitting = words_after(earlier, kept_modules(editor->chosen_.hosts));
        if (earlier.empty()) {
            fitting.insert(fitting.end(), {"help", "exit"});
        }
        std::erase_if(fitting, [word](const std::string& known) { return !known.starts_with(word); });
        const auto next = [](const char*, int) -> char* {
            if (fitting.empty()) {
                return nullptr;
            }
            char* const copy = strdup(fitting.back().c_str());  // the library frees it
            fitting.pop_back();
            return copy;
        };
        rl_attempted_completion_over = 1;
        return rl_completion_matches(word, next);
    }

    const settings& chosen_;
    command_runner& runner_;
    std::string prompt_;
    std::string history_path_;        // empty: none
    std::vector<std::string> typed_;  // this session's part of the history
    bool reading_ = false;
    std::exception_ptr failure_;  // of next_char()
    bool interrupted_ = false;
};

class session {
public:
    session(const settings& chosen, bool at_terminal)
        : chosen_(chosen),
          at_terminal_(at_terminal),
          runner_(chosen, at_terminal ? [this] { suspend(); } : std::function<void()>()) {}

    int run() {
        if (at_terminal_) {
            std::puts("(Tab completes, help lists the words, quit or Ctrl-D leaves)");
            runner_.show_stored();
            editor_.emplace(chosen_, runner_);
        } else if (isatty(STDIN_FILENO) == 1) {  // standard output is no terminal, so there is no prompt
            complain("reading commands from the terminal, one a line; Ctrl-D ends");
        }
        std::string line;
        bool has_line = true;
        do {
            has_line = read(line);
        } while (has_line && run_line(line));
        if (at_terminal_ && !has_line) {
            std::puts("quit");
        }
        return runner_.finish(at_terminal_ ? 0 : exit_code_);
    }

private:
    bool read(std::string& line) {
        if (editor_) {
            return editor_->read(line);
        }
        // A signal ends the wait for the next line as usual.
        with_usual_signals([&line] { std::getline(std::cin, line); });
        return !std::cin.fail();
    }

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
        exit_code_ = 0;
        if (words[0] == "quit" || words[0] == "exit") {
            return false;
        }
        if (words[0] == "help" || words[0] == "?") {
            print_help();
            return true;
        }
        exit_code_ = runner_.run(words);
        // The next lines of a script would also fail, or run without the lock that it held.
        const outcome how = runner_.last().how;
        const bool is_broken = how == outcome::closed || how == outcome::unsent || how == outcome::interrupted;
        return at_terminal_ ? !runner_.signals().leaving() : !is_broken;
    }

    const settings& chosen_;
    const bool at_terminal_;
    command_runner runner_;
    std::optional<line_editor> editor_;
    int exit_code_ = 0;
};

}  // namespace

int run_session(const settings& chosen) {
    return session(chosen, isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1).run();
}
