#include "internal/dispatcher.h"

#include "comm/login.h"
#include "comm/reply.h"
#include "command/dispatch.h"
#include "internal/debug_command.h"
#include "internal/forwarding.h"
#include "internal/operator_lock.h"
#include "internal/resource_stream.h"
#include "internal/show_command.h"
#include "internal/simple_commands.h"
#include "internal/status_command.h"

#include <cstring>

namespace {

struct internal_command {
    const char* word;
    void (*handler)(hmistruc& hmi, int argc, char* argv[]);
};

constexpr internal_command commands[] = {
    {"status", do_status},
    {"modcntl", do_modcntl},
    {"debug", do_debug},
    {"quit", do_quit},
    {"restart", do_restart},
    {"lock", do_hmilock},
    {"unlock", do_hmiunlock},
    {"show", do_show},
    {"hello", do_hello},
    {"login", do_login},
    {"ipset", do_ipset},
    {"send", do_send_syslog},
    {"res_data", do_send_resource},
    {"res_send", do_send_resource},
};

const internal_command* find_command(const char* word) {
    for (const internal_command& command : commands) {
        if (std::strcmp(word, command.word) == 0) {
            return &command;
        }
    }
    return nullptr;
}

}  // namespace

bool is_answered(const char* word) { return find_command(word) != nullptr; }

void do_internal(hmistruc& hmi, char* line) {
    int argc = 0;
    char* argv[vector_size];
    split_to_token(line, argc, argv);
    const internal_command* command = find_command(argv[0]);
    if (command == nullptr) {
        reply_text(hmi.soc, unsupported_line);
        return;
    }
    command->handler(hmi, argc, argv);
}
