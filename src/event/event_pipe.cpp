#include "event/event_pipe.h"

#include "comm/hmi_table.h"
#include "event/event_effects.h"
#include "process/vgd_end.h"
#include "state/sched_status.h"
#include "trace/trace.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/select.h>
#include <unistd.h>

namespace {

constexpr std::string_view stop_code = "I0199";

const char* strip_prefix(std::string_view prefix, const char* text) {
    return std::string_view(text).starts_with(prefix) ? text + prefix.size() : text;
}

// Opens the pipe for reading without blocking, or the open would wait for a writer; then switches it to blocking.
// Returns the descriptor or -1.
int open_pipe_reader() {
    const int fd = open(st->pipe_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= FD_SETSIZE) {  // select cannot handle it
        close(fd);
    }
    if (fd < 0 || fd >= FD_SETSIZE) {
        trprintf("Error:event:VGDpipe \"%s\" open fails.\n", st->pipe_path);
        return -1;
    }
    trprintf("Info:event:pipe reader:fd=%d flag=0x%x\n", fd, static_cast<unsigned>(fcntl(fd, F_GETFL)));
    if (fcntl(fd, F_SETFL, 0) < 0) {
        trprintf("Error:event:fcntl to blocking mode,errno=%d\n", errno);
    }
    return fd;
}

// Opens the pipe for writing too. While this writer is open, read never returns end of file when a module closes the
// pipe.
void open_dummy_writer() {
    errno = 0;
    const int fd = open(st->pipe_path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    trprintf("Info:event:dummy pipe writer:fd=%d errno=%d\n", fd, errno);
}

// Waits for one byte. Returns false when none could be read.
bool read_byte(int fd, char& byte) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    if (select(fd + 1, &readable, nullptr, nullptr, nullptr) != 1) {
        return false;
    }
    if (read(fd, &byte, 1) == 1) {
        return true;
    }
    // Ready, but nothing to read: no writer is left, or the path is not a pipe. Sleep to avoid a busy loop.
    const std::timespec pause{0, 100'000'000};
    nanosleep(&pause, nullptr);
    return false;
}

}  // namespace

bool event_line::add(char byte) {
    text_[count_++] = byte;
    if (byte != '\n' && count_ < event_line_size) {
        return false;
    }
    text_[count_ - 1] = '\0';
    count_ = 0;
    return true;
}

event_type eventtype_check(const char* text) {
    if (text[0] == '\0' || std::strchr("EWIDM", text[0]) == nullptr) {
        return event_type::ignore;
    }
    for (int i = 1; i <= 4; ++i) {
        if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
            return event_type::ignore;
        }
    }
    return text[5] == ':' ? event_type::monitoring_message : event_type::ignore;
}

void event_hmi_msg(const char* text) {
    if (std::string_view(text).starts_with(stop_code)) {
        run_vgd_end();
    }
    if (apply_event_effect(text) == event_audience::hmis) {
        hmistruc_all_enqueue(text);
    }
}

void do_eventmsg(const char* line) {
    const char* text = strip_prefix("MB;", strip_prefix("ALL;", line));
    if (eventtype_check(text) == event_type::ignore) {
        trprintf("event:ignore:\"%s\"\n", text);
        return;
    }
    trprintf("event:vgdmsg:\"%s\"\n", text);
    event_hmi_msg(text);
    event_log(text);
}

void event_main() {
    const int fd = open_pipe_reader();
    if (fd < 0) {
        st->pipe_ready = 1;
        return;
    }
    open_dummy_writer();
    st->pipe_ready = 1;
    trprintf("Info:event:vgd_pipe is ready now\n");
    trprintf("Info:event:pend time = %d\n", st->pendtime);
    event_line line;
    for (;;) {
        char byte = '\0';
        if (read_byte(fd, byte) && line.add(byte)) {
            do_eventmsg(line.text());
        }
    }
}
