#include "command/child.h"

#include "state/sched_status.h"
#include "util/descriptors.h"
#include "util/text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::size_t message_size_max =
    path_size + 1024;                          // argument 0 is a listed module name, at most 511 characters
constexpr std::size_t error_number_size = 16;  // bytes kept free after the message for the number and its end
constexpr std::size_t additions_max = 3;       // REMOTEHOST, LD_PRELOAD, MALLOC_DEBUG

// The scheduler's environment, the additions and a null at the end. Start-up allocates it; each run fills it again.
char** child_environment GUARDED_BY(com_lock) = nullptr;
std::size_t inherited_max GUARDED_BY(com_lock) = 0;  // entries of the scheduler's environment that fit

// Everything that the child needs, prepared before it starts. The child shares our memory and must not use the heap,
// the trace or the standard streams: another thread may be inside one of them.
struct child_plan {
    const char* path;
    char* const* argv;
    char* const* environment;
    int output;
    int null;
    long descriptor_limit;
    char message[message_size_max];  // for a failed exec, up to the error number
    std::size_t message_length;
};

std::size_t environment_size() {
    std::size_t count = 0;
    while (environ[count] != nullptr) {
        ++count;
    }
    return count;
}

// Replaces the entry of the same name or, if there is none, appends one, as putenv does. entries ends with a null.
void put_entry(char** entries, const char* entry) {
    const std::string_view name(entry, static_cast<std::size_t>(std::strchr(entry, '=') - entry) + 1);
    while (*entries != nullptr && std::strncmp(*entries, name.data(), name.size()) != 0) {
        ++entries;
    }
    if (*entries == nullptr) {
        entries[1] = nullptr;
    }
    *entries = const_cast<char*>(entry);
}

char* const* build_environment(const char* entry) REQUIRES(com_lock) {
    const std::size_t inherited = std::min(environment_size(), inherited_max);
    std::copy_n(environ, inherited, child_environment);
    child_environment[inherited] = nullptr;
    if (entry[0] != '\0') {
        put_entry(child_environment, entry);
    }
    if (st->watch_malloc != 0) {
        put_entry(child_environment, "LD_PRELOAD=watchmalloc.so.1");
        put_entry(child_environment, "MALLOC_DEBUG=WATCH,RW");
    }
    return child_environment;
}

void report_exec_failure(child_plan& plan, int error) {
    constexpr std::string_view end = ")\n";
    char* to = plan.message + plan.message_length;
    to = std::to_chars(to, plan.message + sizeof plan.message - end.size(), error).ptr;
    to = std::copy(end.begin(), end.end(), to);
    [[maybe_unused]] const ssize_t written =
        write(STDOUT_FILENO, plan.message, static_cast<std::size_t>(to - plan.message));
}

// Makes system calls only (async-signal-safe) and must not return.
[[noreturn]] void run_child(child_plan& plan) {
    close(STDIN_FILENO);
    dup2(plan.output, STDOUT_FILENO);
    dup2(plan.null, STDERR_FILENO);
    close_from(STDERR_FILENO + 1, plan.descriptor_limit);
    setsid();  // cannot fail: a new child is never the leader of a process group
    execve(plan.path, plan.argv, plan.environment);
    report_exec_failure(plan, errno);
    _exit(1);
}

}  // namespace

int init_child_environment() {
    inherited_max = environment_size();
    child_environment = new (std::nothrow) char*[inherited_max + additions_max + 1];
    return child_environment == nullptr ? -1 : 0;
}

pid_t start_child(const char* path, char* const argv[], const char* addition, int output, int null) {
    child_plan plan{path, argv, build_environment(addition), output, null, descriptor_limit(), {}, 0};
    plan.message_length = format_text(plan.message, "Error:command:exec fails (path=%s argv0=%s errno=", path, argv[0]);
    plan.message_length = std::min(plan.message_length, sizeof plan.message - error_number_size);
    // vfork does not copy the page tables, so the cost of a start does not depend on the size of this process. The
    // child uses our memory until the exec, and only this thread waits for it. Signals cannot run a handler in the
    // child: they are blocked or have none. The cost: when the exec hangs, this thread hangs and keeps com_lock.
    const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
        run_child(plan);  // NOLINT(clang-analyzer-unix.Vfork): plain system calls, and it never returns
    }
    return pid;
}
