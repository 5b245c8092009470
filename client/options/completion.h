// Completion of the command line for the shells.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace client {

// Prints what may stand in place of the last of these arguments, one candidate a line, with a tab and its help where
// there is one; or the line ":host" or ":file" where the shell completes hosts or files. app has all options. modules
// returns the names of the modules for the options before the last argument.
void print_completions(
    const CLI::App& app, const std::vector<std::string>& arguments,
    const std::function<std::vector<std::string>(const std::vector<std::string>& options)>& modules);

}  // namespace client
