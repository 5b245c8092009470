#include "sched/startup.h"

#include "comm/hmi_table.h"
#include "comm/login.h"
#include "command/dispatch.h"
#include "command/module_table.h"
#include "event/syslog_switch.h"
#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/line.h"
#include "util/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <netdb.h>
#include <new>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char service_name[] = "vgdsched";
constexpr int default_niceness = 39;

constexpr const char* required_variables[] = {"VGD_bin",  "VGD_config", "VGD_temp", "VGD_update",
                                              "VGD_data", "VGD_log",    "VGD_PIPE"};

[[noreturn]] void fail() { std::exit(1); }

void check_environment() {
    bool complete = true;
    for (const char* name : required_variables) {
        if (std::getenv(name) == nullptr) {
            std::fprintf(stderr, "Error:environment variable %s does not set.\n", name);
            complete = false;
        }
    }
    if (!complete) {
        std::fprintf(stderr, "VGD scheduler failed.\n");
        fail();
    }
}

void create_record() {
    st = new (std::nothrow) sched_status{};
    if (st == nullptr) {
        std::fprintf(stderr, "Error:sched:cannot allocate memory(errno=%d)\n", errno);
        fail();
    }
}

// Modules learn from REMOTEHOST who has sent the command. One that our starter had in its environment, as some shells set
// it, would show a client for the scheduler's own commands.
void forget_remote_host() { unsetenv("REMOTEHOST"); }

// Builds the path of a file in the directory that an environment variable names.
void build_path(char (&path)[path_size], const char* variable, const char* file) {
    format_text(path, "%s/%s", environment(variable), file);
}

void replace_path(char (&path)[path_size], const char* variable) {
    if (const char* value = std::getenv(variable); value != nullptr) {
        copy_text(path, value);
    }
}

void build_paths() {
    build_path(st->sched_pid_path, "VGD_log", "sched.pid");
    build_path(st->alivechk_pid_path, "VGD_log", "alivechk.pid");
    build_path(st->sched_log_path, "VGD_log", "sched_log");
    build_path(st->event_log_path, "VGD_log", "event_log");
    build_path(st->up_time_path, "VGD_data", "up_time");
    build_path(st->up_time_start_path, "VGD_data", "up_time_start");
    build_path(st->qmx_syslog_offset_path, "VGD_data", "qmx_syslog_offset");
    build_path(st->modules_path, "VGD_config", "vgd_modules");
    build_path(st->timer_jobs_path, "VGD_config", "timer_jobs");
    build_path(st->pvo_ini_path, "VGD_config", "pvo.ini");
    replace_path(st->modules_path, "VGD_modules_path");
    replace_path(st->timer_jobs_path, "VGD_timer_jobs_path");
}

int service_port() {
    const servent* service = getservbyname(service_name, "tcp");
    return service != nullptr ? ntohs(static_cast<std::uint16_t>(service->s_port)) : default_port;
}

void set_action(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

// Blocks all signals except those that an operator uses to end the process. Threads and children inherit the mask.
// With SIGPIPE blocked, a write to a closed socket fails with an error instead of ending the process.
void set_up_signals() {
    sigset_t blocked;
    sigfillset(&blocked);
    sigdelset(&blocked, SIGINT);
    sigdelset(&blocked, SIGTERM);
    sigdelset(&blocked, SIGQUIT);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    set_action(SIGALRM, SIG_IGN);
    // The parent may have ignored these signals, as a shell does for a background command; with SIGCHLD ignored,
    // waitpid gets no status.
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGQUIT}) {
        set_action(signal, SIG_DFL);
    }
}

[[noreturn]] void print_usage() {
    std::puts("Usage: sched -c -D -p port -t pendtime -v -N nice");
    fail();
}

void apply_debug_word(char word) {
    switch (word) {
        case 'D':
            st->debug = 1;
            break;
        case 'A':
            no_alive = 1;
            break;
        case 'W':
            st->watch_malloc = 1;
            break;
        default:
            break;
    }
}

}  // namespace

void print_version() {
    std::puts(version_text);
    std::exit(0);
}

void init_sched() {
    check_environment();
    forget_remote_host();
    create_record();
    build_paths();
    st->port = service_port();
    copy_text(st->pipe_path, environment("VGD_PIPE"));
    trinit(st->sched_log_path);
    if (init_command() != 0) {
        std::fprintf(stderr, "Error:sched:cannot allocate memory(errno=%d)\n", errno);
        fail();
    }
    set_up_signals();
    st->pendtime = default_interval;
    openlog("vgd", LOG_PID | LOG_CONS, LOG_DAEMON);
    st->syslog_poll_interval = default_interval;
    copy_text(st->udp_dest_addr, "127.0.0.1");
    st->udp_dest_port = default_syslog_port;
    st->qmxut_port = default_resource_port;
}

int parse_options(int argc, char* argv[]) {
    int niceness = default_niceness;
    for (int option = 0; (option = getopt(argc, argv, "Dp:t:vVd:N:")) != -1;) {
        switch (option) {
            case 'D':
                st->debug = 1;
                no_alive = 1;
                break;
            case 'd':
                apply_debug_word(optarg[0]);
                break;
            case 'p':
                st->port = decimal_value(optarg);
                break;
            case 't':
                st->pendtime = decimal_value(optarg);
                break;
            case 'N':
                niceness = decimal_value(optarg);
                break;
            case 'v':
            case 'V':
                print_version();
            default:
                print_usage();
        }
    }
    return niceness;
}

void init_sched2() {
    if (hmistruc_init() < 0) {
        fail();
    }
    if (st->port == -1) {
        trprintf("Error:VGD: %s is not defined in services of tcp.\n", service_name);
        std::fprintf(stderr, "Error:VGD: %s is not defined in services of tcp.\n", service_name);
        fail();
    }
    trprintf("Info:use port %d for HMI connection.\n", st->port);
    read_password_file();
    syslog_enable_check();
}

void apply_niceness(int increment) {
    errno = 0;  // nice can return a negative value without a failure; the trace then shows 0
    if (nice(increment) < 0) {
        trprintf("Error:nice(%d) errno=%d\n", increment, errno);
    }
}

void load_modules() {
    if (read_modules() < 0) {
        std::fprintf(stderr, "Error:failed to read VGD module list. filename=\"%s\"\n", st->modules_path);
        fail();
    }
}
