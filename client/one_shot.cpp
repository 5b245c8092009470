#include "one_shot.h"

#include "conversation.h"
#include "json.h"
#include "options.h"
#include "output.h"
#include "report.h"
#include "spool.h"
#include "text.h"

#include <cstdio>
#include <unistd.h>

namespace client {

namespace {

int fail(const std::string& problem) {
    std::fprintf(stderr, "schedctl: %s\n", problem.c_str());
    return exit_usage;
}

}  // namespace

int run_one_shot(const settings& chosen) {
    const json_writer convert = chosen.json ? json_writer_of(chosen.words) : nullptr;
    if (chosen.json && convert == nullptr) {
        return fail(std::string("--json is for ") + json_commands);
    }

    // A terminal must not get control characters of a module; a pipe gets all bytes.
    printable_text filter;
    std::string kept;
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const bool is_status = chosen.words[0] == "status";
    const spool kept_for_us(chosen.where);
    const conversation::sink show = [&](std::string_view text) {
        print(terminal ? filter.clean(text) : text);
    };
    const conversation::sink keep = [&](std::string_view text) { kept += text; };
    // Without a signal watch Ctrl-C ends the program as usual. The connection ends with this statement: while a pager
    // holds up the output of `status`, the scheduler must not queue messages for it.
    const answer_end end =
        conversation(chosen, nullptr).run(chosen.words, is_status || convert != nullptr ? keep : show);
    // Messages that `check` or `metrics` has received come first. With JSON they become part of the one object.
    if (convert == nullptr && !kept.empty()) {
        kept_for_us.before(show)(kept);
    } else if (convert != nullptr && end.how == ending::over) {
        if (is_status) {
            kept_for_us.hand_over([&](const status_report& waiting) {
                print(convert(status_lines(waiting) + kept));
                return true;
            });
        } else {
            print(convert(kept));
        }
    }
    // A module that fails says why in its output; its exit code needs no message.
    const bool module_spoke = end.how == ending::over && end.signal == 0;
    if (!module_spoke && !describe(end).empty()) {
        std::fprintf(stderr, "schedctl: %s\n", describe(end).c_str());
    }
    return exit_code_of(end);
}

}  // namespace client
