#include "timer/uptime.h"

#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/line.h"
#include "util/regular_file.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t text_size = 64;

void load_count(unique_fd file) {
    char text[text_size] = "";
    [[maybe_unused]] const ssize_t got = read(file.get(), text, sizeof text - 1);
    file.reset();
    chomp(text);
    st->uptime = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
    trprintf("read uptime file \"%s\"\n", text);
}

bool write_start_date() {
    const unique_fd file = open_regular(st->up_time_start_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!file) {
        trprintf("Error:failed to create uptime start file.(path=%s errno=%d)\n", st->up_time_start_path, errno);
        return false;
    }
    char date[iso_size];
    date2iso8601(now_seconds(), date);
    [[maybe_unused]] const ssize_t written = write(file.get(), date, std::strlen(date));
    return true;
}

}  // namespace

void server_uptime_init() {
    unique_fd file = open_regular(st->up_time_path, O_RDONLY);
    if (file) {
        load_count(std::move(file));
    } else {
        trprintf("Info:uptime open fails (path=%s errno=%d)\n", st->up_time_path, errno);
        if (!write_start_date()) {
            return;
        }
        st->uptime = 0;
    }
    trprintf("uptime start %u\n", st->uptime.get());
}

void server_uptime_logging() {
    st->uptime = st->uptime + 1;
    const unique_fd file = open_regular(st->up_time_path, O_WRONLY | O_CREAT, 0666);
    if (!file) {
        trprintf("Error: failed to fopen uptime %s errno=%d\n", st->up_time_path, errno);
        return;
    }
    // The new count overwrites the old one and the file is truncated afterwards. Truncating first would lose the old
    // count on a full disk.
    char text[text_size];
    const std::size_t length = format_text(text, "%u\n", st->uptime.get());
    errno = 0;  // a partial write does not set it; the trace then shows 0
    if (write(file.get(), text, length) != static_cast<ssize_t>(length)) {
        trprintf("Error: failed to write uptime %s errno=%d\n", st->up_time_path, errno);
        return;
    }
    // Needed only when the count has become shorter.
    [[maybe_unused]] const int cut = ftruncate(file.get(), static_cast<off_t>(length));
}
