#include "trace/trace.h"

#include "state/sched_status.h"
#include "util/clock.h"
#include "util/mutex.h"
#include "util/regular_file.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t name_size = path_size + 1;
constexpr std::size_t cut_at = 507;  // characters kept of a line that is too long
constexpr char cut_mark[] = "...\n";
static_assert(cut_at + sizeof cut_mark <= trace_line_size);

// Written once by trinit before any other thread exists, then only read.
char trace_name[name_size];
char trace_name2[name_size];
char eventlog_name[name_size];

// Serialises trprintf, from the time stamp to the last write. No other lock is taken under it.
constinit posix_mutex mp;

void cut_long_line(char (&line)[trace_line_size]) {
    if (std::strlen(line) > cut_at) {
        std::memcpy(line + cut_at, cut_mark, sizeof cut_mark);
    }
}

bool is_level_line(const char* line) {
    constexpr const char* words[] = {"Error", "fail", "Warn", "Info"};
    return std::any_of(std::begin(words), std::end(words),
                       [line](const char* word) { return std::strstr(line, word) != nullptr; });
}

// Removes the beginning of a line that a full disk cut, or the next line would follow it without a newline. Only while it
// is the end of the file: supervisor and scheduler write the same trace.
void take_back(int file, off_t written) {
    struct stat info {};
    const off_t end = lseek(file, 0, SEEK_CUR);
    if (end >= written && fstat(file, &info) == 0 && info.st_size == end) {
        [[maybe_unused]] const int result = ftruncate(file, end - written);  // else the piece stays
    }
}

// When the file cannot be written, the line is lost; there is no fallback. Anything but a regular file is neither
// written nor rotated. Rotation needs stat anyway, so this check costs no further system call. O_NONBLOCK covers a
// FIFO that replaces the file after that stat.
int append_line(const char* name, const char* line) {
    struct stat info {};
    if (stat(name, &info) == 0) {
        if (!check_regular(info)) {
            return -1;
        }
        if (info.st_size > rotation_threshold) {
            tr_rotate(name);
        }
    }
    const unique_fd file(open(name, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (!file) {
        return -1;
    }
    // One write, so that lines of supervisor and scheduler never mix.
    const std::size_t length = std::strlen(line);
    const ssize_t written = write(file.get(), line, length);
    if (written > 0 && static_cast<std::size_t>(written) < length) {
        take_back(file.get(), written);
    }
    return 0;
}

// To the trace; in the foreground, to standard output.
void put_line(const char* line) REQUIRES(mp) {
    if (st->debug != 0) {
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line, std::strlen(line));
    } else {
        trflush(line);
    }
}

}  // namespace

unsigned thread_id() { return static_cast<unsigned>(pthread_self()); }

int trinit(const char* path) {
    copy_text(trace_name, path);
    format_text(trace_name2, "%serr", path);
    copy_text(eventlog_name, st->event_log_path);
    return 0;
}

int trprintf(const char* format, ...) {
    if (trace_name[0] == '\0') {
        return -1;
    }
    const int saved_errno = errno;
    {
        const mutex_guard guard(mp);
        char line[trace_line_size];
        char date[date_size];
        const std::size_t prefix =
            format_text(line, "%s thr:%08x ", date_text(local_time(now_seconds()), date), thread_id());
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(line + prefix, sizeof line - 1 - prefix, format, arguments);
        va_end(arguments);
        cut_long_line(line);
        std::replace(line, line + std::strlen(line), '\t', ' ');
        put_line(line);
    }
    errno = saved_errno;
    return 0;
}

int trflush(const char* line) {
    if (append_line(trace_name, line) != 0) {
        return -1;
    }
    return is_level_line(line) ? append_line(trace_name2, line) : 0;
}

int tr_rotate(const char* name) {
    char from[name_size + 2];
    char to[name_size + 2];
    for (int generation = 2; generation >= 0; --generation) {
        format_text(from, "%s.%d", name, generation);
        format_text(to, "%s.%d", name, generation + 1);
        mv_if_exist(from, to);
    }
    format_text(to, "%s.0", name);
    return mv_if_exist(name, to);
}

int mv_if_exist(const char* from, const char* to) { return std::rename(from, to); }

int event_log(const char* text) {
    if (eventlog_name[0] == '\0') {
        return -1;
    }
    char line[trace_line_size];
    char date[date_size];
    format_text(line, "%s : %s\n", date_text(local_time(now_seconds()), date), text);
    cut_long_line(line);
    return append_line(eventlog_name, line);
}
