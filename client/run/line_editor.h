// The line editor of the session: history, completion, and a prompt that also watches the connection.
#pragma once

#include <functional>
#include <histedit.h>
#include <string>
#include <vector>

namespace client {

class command_runner;

class line_editor {
public:
    enum class result { line, end_of_input, interrupted };

    // Only one may exist at a time. history_path: a file that is read now, and to which the destructor appends the
    // typed lines; empty: the history is kept only for the session.
    line_editor(const std::string& prompt, const std::string& history_path, command_runner& runner);
    ~line_editor();
    line_editor(const line_editor&) = delete;
    line_editor& operator=(const line_editor&) = delete;

    // Returns the words that may follow the words before the cursor.
    std::function<std::vector<std::string>(const std::vector<std::string>&)> candidates;

    // Reads one line without its line feed and puts it into the history. While the operator types, a late answer may
    // come, or the scheduler may close the connection; the note about it is shown above the prompt.
    result read(std::string& line);

    // Stops the process as Ctrl-Z usually does. When it continues, the terminal is set up and the prompt drawn again.
    void suspend();

private:
    static char* prompt_of(EditLine* editor);
    static int next_char(EditLine* editor, wchar_t* wide);
    static unsigned char complete(EditLine* editor, std::wint_t key);
    static unsigned char interrupt(EditLine* editor, std::wint_t key);
    static line_editor& self(EditLine* editor);

    bool wait_for_key();

    std::string prompt_;
    std::string history_path_;
    command_runner& runner_;
    EditLine* editor_;
    History* history_;  // the lines that the arrow keys show: earlier sessions and this one
    History* typed_;    // this session only
    bool reading_ = false;
    bool interrupted_ = false;
};

}  // namespace client
