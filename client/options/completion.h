// Completion of the command line for the shells.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace client {

// Prints what may stand in place of the last argument, one candidate a line, with a tab and its help where there is
// one; or the line ":host" or ":file" where the shell completes hosts or files. before: the arguments before the last;
// app has parsed them. words: the words of a command among them. modules: the names that the scheduler has listed.
void print_completions(const CLI::App& app, const std::vector<std::string>& before, const std::string& last,
                       const std::vector<std::string>& words, const std::vector<std::string>& modules);

}  // namespace client
