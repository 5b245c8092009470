#include "run/command.h"

#include "protocol/answer.h"
#include "run/json.h"
#include "run/runner.h"

#include <cstdio>

namespace client {

namespace {

int fail(const std::string& problem) {
    std::fprintf(stderr, "schedctl: %s\n", problem.c_str());
    return exit_usage;
}

}  // namespace

int run_command(const settings& chosen) {
    // Its effect ends with the connection, which is closed after the command.
    if (chosen.several && chosen.words[0] == "ipset") {
        return fail("ipset affects only its own connection; use it in a session");
    }
    command_runner::manner how{.once = true};
    if (chosen.json) {
        how.convert = json_writer_of(chosen.words);
        if (how.convert == nullptr) {
            return fail(std::string("--json is for ") + json_commands);
        }
    }
    command_runner runner(chosen, how);
    return runner.finish(runner.run(chosen.words));
}

}  // namespace client
