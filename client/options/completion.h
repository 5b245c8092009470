// Completion of the command line for the shells. It makes no connection: it offers the modules of the
// scheduler's last listing.
#pragma once

#include "net/host_list.h"

namespace CLI {
class App;
}

// Prints what may stand in place of the last argument, one candidate a line, with a tab and its help where there is
// one; or the line ":host" or ":file" where the shell completes hosts or files. before: the arguments before the last;
// app has parsed them. words: the words of a command among them. modules: the names that the scheduler has listed.
void print_completions(const CLI::App& app, const std::vector<std::string>& before, const std::string& last,
                       const std::vector<std::string>& words, const std::vector<std::string>& modules);

// Keeps the names in an answer of `modcntl`, in a private file for each scheduler. Without a directory for it nothing
// is kept.
void keep_modules(const host_name& host, std::string_view answer);

// The names that were kept for any of these schedulers.
std::vector<std::string> kept_modules(const std::vector<host_name>& hosts);
