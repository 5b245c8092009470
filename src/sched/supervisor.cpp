#include "sched/supervisor.h"

#include "sched/main_loop.h"
#include "sched/sched_status.h"
#include "trace/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int start_max = 100;             // starts of the scheduler by one supervisor
constexpr unsigned restart_pause = 3;      // seconds
constexpr int status_normal = 0;           // wait status: exit code 0
constexpr int status_failure = 0x100;      // exit code 1, a failure that would occur again after a restart
constexpr int status_port_in_use = 0x200;  // exit code 2

[[noreturn]] void stop_with_message() {
    syslog(LOG_ERR, "vgd scheduler was stopped.");
    std::exit(1);
}

// Ends the supervisor when the scheduler's wait status is final. Returns when the scheduler must be started again.
void end_if_final(int status) {
    switch (status) {
        case status_normal:
            trprintf("alive_check:vgd scheduler ends normally.\n");
            std::exit(0);
        case status_failure:
            trprintf("alive_check:vgd scheduler abnormally terminated.\n");
            stop_with_message();
        case status_port_in_use:
            trprintf(
                "alive_check:vgd scheduler abnormally terminated for the specified address is already in "
                "use.\n");
            std::fprintf(stderr, "Error: the specified port is already in use. (port %u)\n",
                         static_cast<unsigned>(st->port));
            std::exit(1);
        default:
            return;
    }
}

// Returns false when the wait itself failed.
bool wait_for_sched(pid_t pid, int& status) {
    errno = 0;
    if (waitpid(pid, &status, 0) < 0) {
        trprintf("alive_check:waitpid(pid=%d) errors.(errno=%d)\n", pid, errno);
        return false;
    }
    trprintf("alive_check:waitpid(pid=%d) returns 0x%x(errno=%d)\n", pid, static_cast<unsigned>(status),
             errno);
    return true;
}

// Detaches from the terminal. The scheduler's descriptors 0 to 2 are opened on /dev/null, so that no pipe or socket
// gets their numbers.
void detach() {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (setsid() < 0) {
        trprintf("Error: setsid failed. errno=%d\n", errno);
        std::exit(1);
    }
    close(STDERR_FILENO);
    int results = 0;
    for (int i = 0; i < 3; ++i) {
        results |= open("/dev/null", O_RDWR);
    }
    if (results < 0) {
        trprintf("create_thread: failed to openh /dev/null (r=%x)\n", static_cast<unsigned>(results));
    }
}

}  // namespace

pid_t create_sched() {
    const pid_t pid = fork();
    if (pid < 0) {
        trprintf("Error: fork failed. errno=%d\n", errno);
        std::exit(1);
    }
    if (pid == 0) {
        detach();
        sched_main();
    }
    return pid;
}

void alive_check() {
    record_pid(st->alivechk_pid_path);
    if (const char* directory = std::getenv("VGD_temp"); directory != nullptr) {
        [[maybe_unused]] const int moved = chdir(directory);  // else modules run in our start directory
    }
    for (int attempt = 1; attempt <= start_max; ++attempt) {
        int status = 0;
        if (!wait_for_sched(create_sched(), status)) {
            break;
        }
        end_if_final(status);
        sleep(restart_pause);
    }
    trprintf("alive_check:giveup to start sched, too many retries(max=%d)\n", start_max);
    stop_with_message();
}
