#include "comm/reply.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

thread_local bool answer_failed = false;

// Waits until the socket takes bytes. Returns false on failure and when end has passed.
bool becomes_writable(const deadline& end, int soc) {
    pollfd writable{soc, POLLOUT, 0};
    const int left = end.left_ms();
    return left > 0 && (poll(&writable, 1, left) >= 0 || errno == EINTR);
}

}  // namespace

bool reply_text(int soc, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(soc, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));  // a signal can end the write early
        } else if (errno != EINTR) {
            answer_failed = true;
            return false;
        }
    }
    return true;
}

bool has_answer_failed() { return std::exchange(answer_failed, false); }

bool reply(int soc, const char* format, ...) {
    char buffer[reply_size];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    const int length = std::clamp(wanted, 0, static_cast<int>(sizeof buffer) - 1);
    return reply_text(soc, {buffer, static_cast<std::size_t>(length)});
}

void reply_over(int soc, int code, int signal) { reply(soc, over_format, code, signal); }

gathered_answer::gathered_answer(int soc) : soc_(soc) {
    const int on = 1;
    setsockopt(soc_, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

gathered_answer::~gathered_answer() {
    const int off = 0;
    setsockopt(soc_, IPPROTO_TCP, TCP_CORK, &off, sizeof off);
}

bool write_until(const deadline& end, int soc, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(soc, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            text.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EINTR && (errno != EAGAIN || !becomes_writable(end, soc))) {
            shutdown(soc, SHUT_RDWR);
            return false;
        }
    }
    return true;
}

void reply_until(const deadline& end, int soc, std::string_view text) {
    if (!write_until(end, soc, text)) {
        answer_failed = true;
    }
}
