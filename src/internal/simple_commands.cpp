#include "internal/simple_commands.h"

#include "comm/disconnect.h"
#include "comm/reply.h"
#include "command/dispatch.h"
#include "command/module_table.h"
#include "process/vgd_end.h"
#include "trace/trace.h"

#include <cstring>

void do_quit(hmistruc& hmi, int /*argc*/, char** /*argv*/) {
    reply_text(hmi.soc, good_bye_line);
    trprintf("close the HMI(%s) by quit command.\n", hmi.remote);
    close_connection(hmi.soc);
}

void do_hello(hmistruc& hmi, int argc, char* argv[]) {
    if (argc > 1) {
        hmistruc_set_text(hmi.user, argv[1]);
        trprintf("Info:hello login:%s\n", hmi.user);
    }
    do_command(&hmi, "ehello", 0);
}

void do_restart(hmistruc& hmi, int argc, char* argv[]) {
    if (argc > 1 && std::strcmp(argv[1], "sched") == 0) {
        trprintf("\"restart sched\" is issued by HMI(%s).\n", hmi.remote);
        close_connection(hmi.soc);
        exit_process(0);
    }
}

void do_modcntl(hmistruc& hmi, int argc, char* argv[]) {
    if (argc == 1) {
        display_modules(hmi.soc);
        reply_over(hmi.soc, 0, 0);
        return;
    }
    const char* state = argc > 2 ? argv[2] : "";
    const bool on = std::strcmp(state, "on") == 0;
    if (!on && std::strcmp(state, "off") != 0) {
        reply_text(hmi.soc, "Usage: modcntl module on/off\r\n");
        reply_over(hmi.soc, 1, 0);
        return;
    }
    if (set_module(argv[1], on ? 1 : 0) == -1) {
        reply_text(hmi.soc, "Error:modcntl:Invalid module name\r\n");
        reply_over(hmi.soc, 1, 0);
        return;
    }
    reply_over(hmi.soc, 0, 0);
}
