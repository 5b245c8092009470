#include "command/runner.h"

#include "comm/reply.h"
#include "command/child.h"
#include "trace/trace.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::size_t chunk_size = 16384;  // bytes of one read

// While it exists, the alarm interrupts the calling thread, and no other, once the time-out has passed. Alarm clock
// and signal action belong to the process, so only one may exist at a time.
class module_alarm {
public:
    explicit module_alarm(unsigned timeout) {
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_UNBLOCK, &alarm_only, &old_mask_);
        // No SA_RESTART: a blocked read must return.
        if (set_action(vgdtout) != 0) {
            trprintf("Error:sigaction failed. errno=%d\n", errno);
        }
        timeout_flag = 0;
        // It fires again each second, because the read would miss an alarm that fires just before it.
        set_timer({{1, 0}, {static_cast<time_t>(timeout), 0}});
    }
    ~module_alarm() {
        set_timer({});
        set_action(SIG_IGN);
        pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    }
    module_alarm(const module_alarm&) = delete;
    module_alarm& operator=(const module_alarm&) = delete;

    // True once the time-out has passed.
    static bool has_fired() { return timeout_flag != 0; }

private:
    static void vgdtout(int /*signal*/) { timeout_flag = 1; }
    static int set_action(void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        return sigaction(SIGALRM, &action, nullptr);
    }
    static void set_timer(const itimerval& timer) { setitimer(ITIMER_REAL, &timer, nullptr); }

    // Set by the handler, cleared before each run, read by the thread that runs a command.
    static inline volatile std::sig_atomic_t timeout_flag = 0;

    sigset_t old_mask_{};
};

// How relaying a program's output ended.
enum class relay_end { finished, timed_out, hmi_gone };

// The destination of a program's output, and the state of relaying it.
struct relay {
    int soc;
    char* capture;
    std::size_t capture_size;
    std::size_t stored = 0;    // bytes in capture
    bool ends_with_lf = true;  // what was written to the socket so far ends with LF, or is empty
    bool hmi_error = false;    // a write to the socket failed, perhaps interrupted by the time-out
};

// Copies n bytes and puts a CR before each LF. to must hold 2 * n bytes. Returns the number of bytes written.
std::size_t to_crlf(const char* from, std::size_t n, char* to) {
    const char* const end = from + n;
    char* out = to;
    while (from < end) {
        const auto* lf = static_cast<const char*>(std::memchr(from, '\n', static_cast<std::size_t>(end - from)));
        const auto run = static_cast<std::size_t>((lf != nullptr ? lf : end) - from);
        std::memcpy(out, from, run);
        out += run;
        from += run;
        if (lf != nullptr) {
            *out++ = '\r';
            *out++ = '\n';
            ++from;
        }
    }
    return static_cast<std::size_t>(out - to);
}

void send_chunk(relay& to, const char* data, std::size_t n) {
    char converted[2 * chunk_size];
    std::string_view rest(converted, to_crlf(data, n, converted));
    // A waiting write ends early when the process is stopped and continued; the rest is then written. Only the alarm
    // ends it for good.
    do {
        const ssize_t written = write(to.soc, rest.data(), rest.size());
        if (written > 0) {
            // The time-out may end the write in the middle of a line.
            to.ends_with_lf = rest[static_cast<std::size_t>(written) - 1] == '\n';
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR || module_alarm::has_fired()) {
            trprintf("Error:write to socket failed.(errno=%d)\n", errno);
            to.hmi_error = true;
        }
    } while (!rest.empty() && !module_alarm::has_fired() && !to.hmi_error);
}

void store_chunk(relay& to, const char* data, std::size_t n) {
    const std::size_t fits = std::min(n, to.capture_size - to.stored);
    std::memcpy(to.capture + to.stored, data, fits);
    to.stored += fits;
}

// Relays the output until its end, the time-out or a write error on the socket.
relay_end relay_output(int pipe, relay& to, unsigned timeout) {
    const module_alarm alarm(timeout);
    char chunk[chunk_size];
    while (!module_alarm::has_fired() && !to.hmi_error) {
        const ssize_t n = read(pipe, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;  // the loop condition checks whether it was the alarm
        }
        if (n <= 0) {
            return relay_end::finished;
        }
        if (to.soc >= 0) {
            send_chunk(to, chunk, static_cast<std::size_t>(n));
        } else if (to.capture != nullptr) {
            store_chunk(to, chunk, static_cast<std::size_t>(n));
        }
    }
    return module_alarm::has_fired() ? relay_end::timed_out : relay_end::hmi_gone;
}

int wait_for_child(pid_t pid) {
    int status = -1;  // when waitpid fails: neither success nor "condition present"
    pid_t ended = 0;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    trprintf("command:wait pid=%d status=%08x\n", ended, static_cast<unsigned>(status));
    return status;
}

void wait_for_stray_children() {
    int status = 0;
    for (pid_t pid = wait(&status); pid > 0; pid = wait(&status)) {
        trprintf("Info:command:extra wait:pid=%d status=%08x\n", pid, static_cast<unsigned>(status));
    }
}

// Sends the terminating line.
void reply_end(const deadline& patience, int soc, relay_end end, int status) {
    if (end == relay_end::timed_out) {
        reply_until(patience, soc, timeout_line);
        return;
    }
    char over[64];
    const std::size_t length = format_text(over, over_format, (status >> 8) & 0xff, status & 0xff);
    reply_until(patience, soc, {over, length});
}

}  // namespace

int start_command(const char* path, int soc, unsigned timeout, char* const argv[], const char* addition,
                  char* capture,  // NOLINT(readability-non-const-parameter): written through relay
                  int capture_size) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        trprintf("Error:command:pipe fail(errno=%d)\n", errno);
        return -1;
    }
    unique_fd output(ends[0]);
    unique_fd child_output(ends[1]);
    unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null) {
        trprintf("Error:command:fail to open /dev/null.(errno=%d)\n", errno);
        return -1;
    }
    const pid_t pid = start_child(path, argv, addition, child_output.get(), null.get());
    if (pid < 0) {
        trprintf("Error:command:fork fails (errno=%d)\n", errno);
        return -1;
    }
    child_output.reset();

    relay to{soc, capture, static_cast<std::size_t>(std::max(capture_size, 0))};
    const relay_end end = relay_output(output.get(), to, timeout);
    if (end != relay_end::finished) {
        trprintf("Error:command:timeout or error:path=%s timeout=%d pid=%d hmi_err=%d\n", path,
                 static_cast<int>(timeout), pid, to.hmi_error ? 1 : 0);
        killpg(pid, SIGKILL);
    }
    const deadline patience(reply_patience_ms);
    // Also after a write that only the time-out has ended.
    if (soc >= 0 && end != relay_end::hmi_gone && !to.ends_with_lf) {
        reply_until(patience, soc, "\r\n");
    }
    // For the other write, so that both together do not hold com_lock longer. The child's own time does not count.
    const int patience_left = patience.left_ms();
    const int status = wait_for_child(pid);
    output.reset();
    null.reset();
    wait_for_stray_children();
    if (soc >= 0) {
        reply_end(deadline(patience_left), soc, end, status);
    }
    return status;
}
