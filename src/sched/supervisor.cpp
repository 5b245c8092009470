#include "sched/supervisor.h"

#include "sched/main_loop.h"
#include "state/sched_status.h"
#include "trace/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

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
    trprintf("alive_check:waitpid(pid=%d) returns 0x%x(errno=%d)\n", pid, static_cast<unsigned>(status), errno);
    return true;
}

// Opens the event pipe, so that what stands in it outlives a scheduler: when the last descriptor of a pipe is closed, the
// kernel drops its content. It is never read here. Opened for both directions it waits for nobody. Returns an empty
// descriptor for a missing pipe, one that we may not open, and anything but a FIFO: the scheduler traces why it has none.
unique_fd open_event_pipe() {
    unique_fd pipe(open(st->pipe_path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (pipe && (fstat(pipe.get(), &info) != 0 || !S_ISFIFO(info.st_mode))) {
        pipe.reset();
    }
    return pipe;
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

pid_t create_sched(unique_fd& event_pipe) {
    const pid_t pid = fork();
    if (pid < 0) {
        trprintf("Error: fork failed. errno=%d\n", errno);
        std::exit(1);
    }
    if (pid == 0) {
        event_pipe.reset();  // the scheduler opens the pipe itself
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
    unique_fd event_pipe;
    for (int attempt = 1; attempt <= start_max; ++attempt) {
        // Opened again, because the FIFO may have been replaced. The old one stays open meanwhile: if it is the same, it
        // keeps its content.
        if (unique_fd opened = open_event_pipe()) {
            event_pipe = std::move(opened);
        }
        int status = 0;
        if (!wait_for_sched(create_sched(event_pipe), status)) {
            break;
        }
        end_if_final(status);
        sleep(restart_pause);
    }
    trprintf("alive_check:giveup to start sched, too many retries(max=%d)\n", start_max);
    stop_with_message();
}
