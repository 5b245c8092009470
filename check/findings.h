// What is wrong with the configuration, line by line, and the exit code that follows from it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace check {

enum exit_code : int { exit_clean = 0, exit_findings = 1, exit_unreadable = 2 };

class findings {
public:
    // One finding: prints "file:line: text" on standard output.
    void add(const std::string& file, int line, const std::string& text);

    // A file that cannot be read, with the reason; printed on standard error.
    void unreadable(const std::string& what, const std::string& reason);

    // Writes out what add() has printed; a failure counts as a file that cannot be used. The exit code.
    int finish();

private:
    bool found_ = false;
    bool unreadable_ = false;
};

// Text of a configuration file with its control characters as escapes like \t and \x1b.
std::string printable(std::string_view text);

// The same in double quotes, and at most 100 characters of the text.
std::string quoted(std::string_view text);

// The known name with the fewest single-character changes from name, in quotes; "" when none is known.
std::string nearest(std::string_view name, const std::vector<std::string>& known);

}  // namespace check
