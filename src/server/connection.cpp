#include "server/connection.h"

#include "comm/disconnect.h"
#include "comm/login.h"
#include "comm/reply.h"
#include "command/dispatch.h"
#include "command/module_table.h"
#include "event/syslog_switch.h"
#include "internal/dispatcher.h"
#include "internal/operator_lock.h"
#include "state/mark_question.h"
#include "state/platform.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <cstring>
#include <optional>

static_assert(line_max == command_line_size, "what a connection reads, the dispatch takes whole");

namespace {

bool passes_login_gate(const hmistruc& hmi, std::string_view line) {
    return hmi.auth != auth_required || line == "quit" || line.starts_with("login\t") || line.starts_with("ipset\t");
}

void refuse_overflow(const hmistruc& hmi, const char* line) {
    trprintf("Error:comm:line overflow (max=%d soc=%d hmi=%s)\n", line_max, hmi.soc, hmi.remote);
    trprintf(" data=\"%s\"\n", line);
    reply_text(hmi.soc, busy_line);
}

void ask_for_login(const hmistruc& hmi, const char* line) {
    reply(hmi.soc, unauth_format, hmi.nonce, st->auth_salt);
    trprintf("auth required (command=%s, hmi=%s)\n", line, hmi.remote);
}

void run_line(hmistruc& hmi, char* line) {
    char name[line_max];
    get_first_token(line, name);
    const bool external = is_external(name) != 0;
    if (!external && is_internal(name) == 0) {
        trprintf("Warning:comm:unsupported(\"%s\")\n", line);
        reply_text(hmi.soc, unsupported_line);
        return;
    }
    if (const int count = count_arguments(line); count > argument_max) {
        trprintf("Warning:comm:too many fields (%d, max=%d) from hmi(%s)\n", count, argument_max, hmi.remote);
        reply_text(hmi.soc, unsupported_line);
        return;
    }
    if (external) {
        do_command(&hmi, line, 0);
        do_cont_command(line);
        return;
    }
    if (st->debug != 0) {
        trprintf("Info:internal:\"%s\"\n", line);
    }
    do_internal(hmi, line);
}

void carry_out(hmistruc& hmi, char* line, int length) {
    if (length == line_max - 1) {
        refuse_overflow(hmi, line);
    } else if (!passes_login_gate(hmi, line)) {
        ask_for_login(hmi, line);
    } else {
        run_line(hmi, line);
    }
}

// A client that is gone. It may have sent its lines without waiting for the answers, so they are still carried out. But
// it may have left very many, so there is a limit, and its place is soon free.
class gone_client {
public:
    // Called before a line is carried out. Returns false when it must be dropped, and then traces that.
    bool may_leave_a_line(const hmistruc& hmi) {
        if (lines_ < lines_max && patience_.left_ms() > 0) {
            ++lines_;
            return true;
        }
        trprintf("Warning:comm:hmi(%s) is gone, %d lines carried out after it, the rest dropped\n", hmi.remote, lines_);
        return false;
    }

private:
    static constexpr int lines_max = 100;
    static constexpr std::int64_t patience_ms = 10'000;

    int lines_ = 0;
    deadline patience_{patience_ms};
};

void serve(hmistruc& hmi, line_reader& reader) {
    char line[line_max];
    std::optional<gone_client> gone;  // from the first answer on that could not be written
    while (hmi.soc >= 0) {
        const int length = reader.read_line(line, line_max);
        if (length < 0 || (gone && !gone->may_leave_a_line(hmi))) {
            return;
        }
        carry_out(hmi, line, length);
        if (has_answer_failed() && !gone) {
            gone.emplace();
        }
    }
}

void end_connection(hmistruc& hmi) {
    trprintf("hmi(%s) is gone.\n", hmi.remote);
    if (hmi.soc >= 0) {
        shutdown_connection(hmi.soc);
        close_connection(hmi.soc);
    }
    if (hmi.locked != 0) {
        release_operator_lock();
    }
    { const unique_fd resource(hmi.resource_fd.exchange(-1)); }
    hmistruc_put(hmi);
}

// Clears a mark when the module no longer reports it. The stamp records when the module was asked.
void confirm_cleared(status_mark& mark, const char* command) {
    if (mark.set == 0) {
        return;
    }
    mark_question question(mark, answer_effect::success_clears);
    do_command_with_buffer(command, nullptr, 0, &question);
    get_tick(mark.stamp);
}

}  // namespace

void get_first_token(const char* line, char (&name)[line_max]) { copy_text(name, {line, std::strcspn(line, "\t")}); }

void do_cont_command(std::string_view line) {
    if (line.starts_with("parts\tclear")) {
        confirm_cleared(st->error, "parts\tstatus");
    }
    if (is_prognosis_platform() && line.starts_with("prognosis\tprevdel")) {
        confirm_cleared(st->prevent, "parts\tprevstatus");
    }
    if (line.starts_with("qmx\tsyslog\tenable") || line.starts_with("qmx\tsyslog\tdisable")) {
        syslog_enable_check();
    }
}

void hmi_main(hmistruc& hmi) {
    auth_check(hmi);
    line_reader reader(hmi.soc);
    hmi.lines = &reader;
    serve(hmi, reader);
    hmi.lines = nullptr;
    end_connection(hmi);
}
