#include "comm/reply.h"

#include "util/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

void reply_text(int soc, std::string_view text) {
    [[maybe_unused]] const ssize_t written = write(soc, text.data(), text.size());
}

void reply(int soc, const char* format, ...) {
    char buffer[reply_size];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
        reply_text(soc, {buffer, std::min(static_cast<std::size_t>(wanted), sizeof buffer - 1)});
    }
}

void reply_over(int soc, int code, int signal) {
    reply(soc, over_format, code, signal);
}

void reply_within(int soc, std::string_view text, std::int64_t& patience) {
    const std::int64_t deadline = monotonic_ms() + patience;
    while (!text.empty()) {
        const ssize_t sent = send(soc, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            text.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return;
        }
        pollfd room{soc, POLLOUT, 0};
        if (patience == 0 || poll(&room, 1, static_cast<int>(patience)) < 0) {
            patience = 0;
            shutdown(soc, SHUT_RDWR);
            return;
        }
        patience = std::max<std::int64_t>(deadline - monotonic_ms(), 0);
    }
}

void drain_and_close(int soc) {
    constexpr int rounds = 64;  // a peer that sends faster than we discard is not waited for
    char discarded[4096];
    for (int i = 0; i < rounds && recv(soc, discarded, sizeof discarded, MSG_DONTWAIT) > 0; ++i) {
    }
    close(soc);
}

void refuse_connection(int soc) {
    shutdown(soc, SHUT_RDWR);
    drain_and_close(soc);
}
