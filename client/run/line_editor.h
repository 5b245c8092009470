// The line editor of the session: history, completion, and a prompt that also watches the connection.
#pragma once

#include <histedit.h>
#include <string>

namespace client {

class command_runner;
struct settings;

class line_editor {
public:
    // Only one may exist at a time. Reads the history from its file, to which the destructor appends the typed lines.
    // Without a directory for it the history is kept only for the session.
    line_editor(const settings& chosen, command_runner& runner);
    ~line_editor();
    line_editor(const line_editor&) = delete;
    line_editor& operator=(const line_editor&) = delete;

    // Reads one line without its line feed and puts it into the history; after Ctrl-C the line is empty.
    // While the operator types, a late answer may come, or the scheduler may close the connection; the note
    // about it is shown above the prompt. Returns false at the end of the input, and after a signal that ends
    // the session.
    bool read(std::string& line);

    // Stops the process as Ctrl-Z usually does. When it continues, the terminal is set up and the prompt drawn again.
    void suspend();

private:
    static int next_char(EditLine* editor, wchar_t* wide);
    static unsigned char complete(EditLine* editor, std::wint_t key);
    static line_editor& self(EditLine* editor);

    bool wait_for_key();

    const settings& chosen_;
    std::string prompt_;
    std::string history_path_;  // empty: none
    command_runner& runner_;
    EditLine* editor_;
    History* history_;  // the lines that the arrow keys show: earlier sessions and this one
    History* typed_;    // this session only
    bool reading_ = false;
    bool interrupted_ = false;
};

}  // namespace client
