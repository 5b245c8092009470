#include "run/line_editor.h"

#include "mail/state_file.h"
#include "mail/state_path.h"
#include "options/completion.h"
#include "protocol/limits.h"
#include "protocol/words.h"
#include "run/runner.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace client {

namespace {

constexpr int history_size = 1000;  // lines that a session offers, and that a trimmed file keeps
constexpr long longest_history_file = 256L * 1024;  // bytes; a longer file is trimmed

// A history file that is missing counts as empty; append_history creates it. A file that is no regular file, or stays
// locked by a session that was stopped while it ended, also counts as empty and is not written: the session then works
// without it. The same holds for an empty path.

// Adds the file's newest lines to the history.
void load_history(const std::string& path, History* into) {
    state_file file(path, state_file::access::read);
    HistEvent event;
    if (file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        history(into, &event, H_LOAD, path.c_str());
    }
}

// Appends the lines of the history, oldest first, after the lines that other sessions have written meanwhile.
void append_history(const std::string& path, History* lines) {
    state_file file(path, state_file::access::create);
    if (!file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        return;
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(fdopen(dup(file.fd()), "r+"), std::fclose);
    if (stream == nullptr || std::fseek(stream.get(), 0, SEEK_END) != 0) {
        return;
    }
    HistEvent event;
    // libedit begins a new file with a line that names the format.
    history(lines, &event, H_SAVE_FP, stream.get());
    if (std::fflush(stream.get()) != 0 || std::ftell(stream.get()) <= longest_history_file) {
        return;
    }
    // The file is written again under the same lock and name: another session may wait for the lock of this file.
    History* newest = history_init();
    history(newest, &event, H_SETSIZE, history_size);
    history(newest, &event, H_LOAD, path.c_str());
    std::rewind(stream.get());
    if (file.truncate(0)) {
        history(newest, &event, H_SAVE_FP, stream.get());
    }
    history_end(newest);
}

}  // namespace

line_editor::line_editor(const settings& chosen, command_runner& runner) : chosen_(chosen), runner_(runner) {
    const host_name& host = chosen.hosts[0];
    const std::string& user = chosen.connect.user;
    prompt_ = (user.empty() ? "" : user + "@") + host.name + ":" + std::to_string(host.port) + "> ";
    const std::string directory = private_directory();
    history_path_ = directory.empty() ? "" : directory + "/history";
    editor_ = el_init("schedctl", stdin, stdout, stderr);
    history_ = history_init();
    typed_ = history_init();
    HistEvent event;
    history(history_, &event, H_SETSIZE, history_size);
    history(history_, &event, H_SETUNIQUE, 1);  // no line twice in a row
    history(typed_, &event, H_SETSIZE, history_size);
    load_history(history_path_, history_);
    el_set(editor_, EL_CLIENTDATA, this);
    const auto prompt = [](EditLine* editor) { return self(editor).prompt_.data(); };
    el_set(editor_, EL_PROMPT, +prompt);
    el_set(editor_, EL_EDITOR, "emacs");
    el_set(editor_, EL_HIST, history, history_);
    el_set(editor_, EL_GETCFN, next_char);
    const auto interrupt = [](EditLine* editor, std::wint_t) -> unsigned char {
        self(editor).interrupted_ = true;
        std::fputs("^C\n", stdout);
        return CC_EOF;
    };
    // The narrow call would make copies of these texts that are never freed.
    el_wset(editor_, EL_ADDFN, L"schedctl-complete", L"complete the word", complete);
    el_wset(editor_, EL_ADDFN, L"schedctl-interrupt", L"drop the line", +interrupt);
    el_set(editor_, EL_BIND, "^I", "schedctl-complete", nullptr);
    el_set(editor_, EL_BIND, "^C", "schedctl-interrupt", nullptr);
    el_set(editor_, EL_BIND, "^R", "em-inc-search-prev", nullptr);  // as in the shell
    // Last, so that the operator's own ~/.editrc can change the bindings.
    el_source(editor_, nullptr);
}

line_editor::~line_editor() {
    append_history(history_path_, typed_);
    history_end(typed_);
    history_end(history_);
    el_end(editor_);
}

line_editor& line_editor::self(EditLine* editor) {
    void* data = nullptr;
    el_get(editor, EL_CLIENTDATA, &data);
    return *static_cast<line_editor*>(data);
}

bool line_editor::read(std::string& line) {
    interrupted_ = false;
    int length = 0;
    reading_ = true;
    const char* text = el_gets(editor_, &length);
    reading_ = false;
    // Ctrl-C ends the line with CC_EOF, which el_gets reports like the end of the input.
    if (interrupted_ && !runner_.signals().leaving()) {
        line.clear();
        return true;
    }
    if (text == nullptr || length <= 0) {
        return false;
    }
    line.assign(text, static_cast<std::size_t>(length));
    if (line.ends_with('\n')) {
        line.pop_back();
    }
    HistEvent event;
    if (line.find_first_not_of(" \t") != std::string::npos) {
        history(history_, &event, H_ENTER, line.c_str());
        history(typed_, &event, H_ENTER, line.c_str());
    }
    return true;
}

// Returns true when a key can be read, false when a signal stopped the wait.
bool line_editor::wait_for_key() {
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
            el_resize(editor_);
        }
        if (const std::string text = ready[2].revents != 0 ? runner_.absorb() : ""; !text.empty()) {
            // The row with the prompt is cleared, and drawn again below the text.
            std::printf("\r\033[K(%s)\n", text.c_str());
            el_set(editor_, EL_REFRESH);
        }
        if (ready[0].revents != 0) {
            return true;
        }
    }
}

void line_editor::suspend() {
    if (reading_) {
        el_set(editor_, EL_PREP_TERM, 0);
    }
    with_usual_signals([] { std::raise(SIGTSTP); });
    if (reading_) {
        el_set(editor_, EL_PREP_TERM, 1);
        el_set(editor_, EL_REFRESH);
    }
}

// Replaces libedit's reader, which waits only for the keyboard. A signal is returned as if its key had been typed.
int line_editor::next_char(EditLine* editor, wchar_t* wide) {
    line_editor& own = self(editor);
    std::mbstate_t state{};
    for (;;) {
        char byte = 0;
        if (!own.wait_for_key()) {
            *wide = L'\003';  // Ctrl-C, bound to schedctl-interrupt
            return own.runner_.signals().leaving() ? 0 : 1;
        }
        const ssize_t n = ::read(STDIN_FILENO, &byte, 1);
        if (n <= 0) {
            return static_cast<int>(n);
        }
        const std::size_t length = std::mbrtowc(wide, &byte, 1, &state);
        if (length == 0 || length == 1) {
            return 1;
        }
        // A character may come in several bytes; state keeps the first ones.
        if (length == static_cast<std::size_t>(-1)) {
            state = {};  // not of this locale: dropped
        }
    }
}

unsigned char line_editor::complete(EditLine* editor, std::wint_t) {
    line_editor& own = self(editor);
    const LineInfo* info = el_line(editor);
    const std::string before(info->buffer, static_cast<std::size_t>(info->cursor - info->buffer));
    const std::size_t start = before.find_last_of(" \t") + 1;
    const std::string typed = before.substr(start);
    std::vector<std::string> earlier;
    split_words(std::string_view(before).substr(0, start), earlier);

    std::vector<std::string> fitting = words_after(earlier, kept_modules(own.chosen_.hosts));
    if (earlier.empty()) {
        fitting.insert(fitting.end(), {"help", "exit"});
    }
    std::erase_if(fitting, [&typed](const std::string& word) { return !word.starts_with(typed); });
    if (fitting.empty()) {
        return CC_ERROR;
    }
    const auto [least, most] = std::minmax_element(fitting.begin(), fitting.end());
    const auto common_end = std::mismatch(least->begin(), least->end(), most->begin(), most->end()).first;
    std::string rest = std::string(least->begin(), common_end).substr(typed.size());
    if (fitting.size() == 1) {
        rest += ' ';
    }
    // Inserts what the matching words have in common beyond the typed text; lists them when that is nothing.
    if (!rest.empty()) {
        return el_insertstr(editor, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    }
    std::fputs("\n", stdout);
    for (const std::string& word : fitting) {
        std::printf("%s  ", word.c_str());
    }
    std::fputs("\n", stdout);
    return CC_REDISPLAY;
}

}  // namespace client
