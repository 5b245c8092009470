#include "sched/main_loop.h"

#include "command/dispatch.h"
#include "event/event_pipe.h"
#include "event/syslog_watcher.h"
#include "process/vgd_end.h"
#include "server/listener.h"
#include "state/mark_question.h"
#include "state/platform.h"
#include "state/sched_status.h"
#include "timer/job_table.h"
#include "timer/timer_loop.h"
#include "trace/trace.h"
#include "util/pid_file.h"

#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned accept_pause = 1;  // seconds, after a failed accept

// Without the timer thread nothing reads the job file. Written and read by the main thread only.
bool timer_thread_exists = false;

template <void (*Body)()>
void* thread_body(void* /*argument*/) {
    Body();
    return nullptr;
}

bool start_thread(void* (*body)(void*), const char* name) {
    pthread_t thread{};
    if (const int result = pthread_create(&thread, nullptr, body, nullptr); result != 0) {
        trprintf("Error:sched:%s thread fails to create.(%d) errno=%d\n", name, result, errno);
        return false;
    }
    pthread_detach(thread);
    return true;
}

void wait_for_pipe() {
    trprintf("Info:sched:waiting vgdpipe ready\n");
    while (st->pipe_ready == 0) {
        sched_yield();
    }
}

void mark_if_condition(status_mark& mark, const char* command) {
    mark_question question(mark, answer_effect::condition_sets);
    do_command_with_buffer(command, nullptr, 0, &question);
}

void accept_hmi(int listener) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const int soc = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    if (soc < 0) {
        trprintf("accept failed. errno=%d\n", errno);
        sleep(accept_pause);
        return;
    }
    arrive_new_hmi(soc, peer);
}

}  // namespace

void record_pid(const char* path) {
    if (write_pidfile(path) < 0) {
        trprintf("Error:write_pidfile:%s:failed to open.(errno=%d)\n", path, errno);
    }
}

void create_event_timer_thread() {
    const bool event_thread_exists = start_thread(thread_body<event_main>, "event");
    start_thread(thread_body<event_main_syslog>, "event(syslog)");
    timer_thread_exists = start_thread(thread_body<timer_main>, "timer");
    if (!event_thread_exists) {
        exit_process(1);
    }
}

void run_startup_vgd_command() {
    do_command_with_buffer("allmodcall\tstart", nullptr, 0);
    set_and_stamp(st->confdate);
    mark_if_condition(st->error, "parts\tstatus");
    if (is_prognosis_platform()) {
        mark_if_condition(st->prevent, "prognosis\tprevstatus");
    }
    mark_if_condition(st->diag, "diag\tstatus");
    if (timer_thread_exists) {
        wait_for_jobs();
    }
    mark_if_on_timer(st->patrol, "patrol");
    mark_if_on_timer(st->padiag, "padiag");
}

void sched_main() {
    record_pid(st->sched_pid_path);
    trprintf("****************************************************\n");
    trprintf("Info:sched:started(pid=%d)\n", static_cast<int>(getpid()));
    create_event_timer_thread();
    wait_for_pipe();
    trprintf("Info:calling VGDstart\n");
    run_startup_vgd_command();
    const int listener = init_socket();
    trprintf("Info:sched:accepting socket = %d\n", listener);
    for (;;) {
        accept_hmi(listener);
    }
}
