#include "command/dispatch.h"

#include "comm/reply.h"
#include "command/child.h"
#include "command/module_table.h"
#include "command/runner.h"
#include "trace/trace.h"
#include "util/mutex.h"
#include "util/text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr int cmdq_slots = 31;                 // numbers 1 to 30; slot 0 is never used
constexpr std::size_t parked_line_size = 300;  // bytes of a parked command line, its NUL included
constexpr std::size_t remote_host_size = 64;   // bytes of "REMOTEHOST=address", the NUL included
constexpr int default_timeout = 60;            // seconds

// A timer job's command that waits until the running command ends.
struct cmdq_entry {
    std::uint8_t queued;  // 1 while line waits
    char line[parked_line_size];
};

constinit posix_mutex queue_lock;

// Slot n belongs to timer job number n.
cmdq_entry cmdq[cmdq_slots] GUARDED_BY(queue_lock);

// com_lock is held here, so the wait for a peer that does not read is limited.
void refuse(const hmistruc* hmi, std::string_view answer) {
    if (hmi != nullptr) {
        reply_until(deadline(reply_patience_ms), hmi->soc, answer);
    }
}

// Returns the program of the command. Returns null, after a trace line and an answer to the HMI, when the command
// cannot be run.
const char* accept_command(const hmistruc* hmi, int fields, char* const argv[]) {
    const char* entrypath = get_entrypath(argv[0]);
    if (entrypath == nullptr) {
        trprintf("Error:command:unsupported command \"%s\"\n", argv[0]);
        refuse(hmi, unsupported_line);
        return nullptr;
    }
    if (fields > argument_max) {
        trprintf("Error:command:too many arguments (%d, max=%d) \"%s\"\n", fields, argument_max, argv[0]);
        refuse(hmi, unsupported_line);
        return nullptr;
    }
    if (is_modulebusy(argv[0], argv[1]) != 0) {
        trprintf("Error:command:module is busy \"%s\"\n", argv[0]);
        refuse(hmi, busy_line);
        return nullptr;
    }
    return entrypath;
}

// Runs the commands that timer jobs parked meanwhile, in the order of their numbers.
void run_parked(const char* caller) REQUIRES(com_lock) {
    const mutex_guard guard(queue_lock);
    for (int number = 1; number < cmdq_slots; ++number) {
        if (cmdq[number].queued != 0) {
            trprintf("%s:execute delayed one.(no.%d)\n", caller, number);
            do_command2(nullptr, cmdq[number].line, nullptr, 0);
            cmdq[number].queued = 0;
        }
    }
}

int run_with_parked(const char* caller, hmistruc* hmi, const char* line, char* capture, int capture_size,
                    mark_question* question) REQUIRES(com_lock) {
    if (question != nullptr) {
        question->begin();
    }
    const int status = do_command2(hmi, line, capture, capture_size);
    run_parked(caller);
    if (question != nullptr) {
        question->answered(status);
    }
    return status;
}

void park(const char* line, int number) {
    const mutex_guard guard(queue_lock);
    if (cmdq[number].queued == 0) {
        trprintf("command:no.%d is queue-ed.\n", number);
        cmdq[number].queued = 1;
        copy_text(cmdq[number].line, line);
    }
}

}  // namespace

int init_command() {
    const mutex_guard runs(com_lock);
    const mutex_guard queue(queue_lock);
    for (cmdq_entry& slot : cmdq) {
        slot.queued = 0;
    }
    return init_child_environment();
}

char* skip_non_delimiter(char* text) { return text + std::strcspn(text, "\t"); }

int count_arguments(const char* line) { return 1 + static_cast<int>(std::count(line, line + std::strlen(line), '\t')); }

int split_to_token(char* text, int& count, char* (&vector)[vector_size]) {
    count = 0;
    bool more = true;
    while (more && count < argument_max) {
        vector[count++] = text;
        text = skip_non_delimiter(text);
        more = *text == '\t';
        if (more) {
            *text++ = '\0';
        }
    }
    vector[count] = nullptr;
    return more ? count + count_arguments(text) : count;
}

int do_command2(hmistruc* hmi, const char* line, char* capture, int capture_size) {
    char text[command_line_size];
    copy_text(text, line);
    int argc = 0;
    char* argv[vector_size];
    const int fields = split_to_token(text, argc, argv);
    const char* entrypath = accept_command(hmi, fields, argv);
    if (entrypath == nullptr) {
        return -1;
    }
    char path[path_size];
    format_text(path, "%s/%s", environment("VGD_bin"), entrypath);
    int timeout = get_timeout(argv[0]);
    if (timeout < 1) {
        timeout = default_timeout;
    }
    char remote_host[remote_host_size] = "";
    int soc = -1;
    if (hmi != nullptr) {
        format_text(remote_host, "REMOTEHOST=%s", hmi->remote);
        soc = hmi->soc;
    }
    trprintf("command:\"%s\" \n", argv[0]);
    const int status =
        start_command(path, soc, static_cast<unsigned>(timeout), argv, remote_host, capture, capture_size);
    trprintf("command:\"%s\" end. status=%x\n", argv[0], static_cast<unsigned>(status));
    return status;
}

int do_command(hmistruc* hmi, const char* line, int number, mark_question* question) {
    trprintf("command1:\"%s\"(from %s) no.%d\n", line, hmi != nullptr ? hmi->remote : "sched", number);
    if (number == 0) {
        com_lock.lock();
    } else if (com_lock.try_lock()) {
        trprintf("command1:trylock succeed.(no.%d)\n", number);
        hmi = nullptr;
    } else {
        trprintf("command1:trylock failed.(no.%d)\n", number);
        park(line, number);
        return -1;
    }
    const int status = run_with_parked("command1", hmi, line, nullptr, 0, question);
    com_lock.unlock();
    return status;
}

int do_command_with_buffer(const char* line, char* buffer, int size, mark_question* question) {
    trprintf("command_buffer:\"%s\"\n", line);
    const mutex_guard guard(com_lock);
    return run_with_parked("command_buffer", nullptr, line, buffer, size, question);
}

void do_last_command(const char* line) {
    trprintf("command_buffer:\"%s\"\n", line);
    com_lock.lock();
    run_with_parked("command_buffer", nullptr, line, nullptr, 0, nullptr);
}
