#include "term/text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int signal_interval = 100;  // milliseconds

// Special results of mbrtowc.
constexpr std::size_t incomplete = static_cast<std::size_t>(-2);
constexpr std::size_t invalid = static_cast<std::size_t>(-1);

std::string escaped(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
        out += code;
    }
    return out;
}

// Whether a signal that ends the program has come. The signals may be blocked during a write.
bool is_told_to_end() {
    sigset_t pending;
    return sigpending(&pending) == 0 && (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
                                         sigismember(&pending, SIGHUP) == 1);
}

}  // namespace

std::string printable_text::clean(std::string_view bytes) {
    const std::string text = std::exchange(pending_, {}).append(bytes);
    std::string out;
    std::size_t length = 0;
    for (std::size_t at = 0; at < text.size(); at += length) {
        wchar_t wide = 0;
        std::mbstate_t state{};
        const std::size_t decoded = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
        // The rest of the character comes with the next call.
        if (decoded == incomplete) {
            pending_ = text.substr(at);
            break;
        }
        length = decoded == invalid || decoded == 0 ? 1 : decoded;
        const std::string character = text.substr(at, length);
        const bool is_shown = character == "\n" || character == "\t" ||
                              (decoded == length && std::iswprint(static_cast<std::wint_t>(wide)) != 0);
        out += is_shown ? character : character != "\r" ? escaped(character) : "";
    }
    return out;
}

ssize_t write_ready(int fd, std::string_view bytes, int milliseconds) {
    pollfd ready{fd, POLLOUT, 0};
    if (poll(&ready, 1, milliseconds) <= 0) {
        return 0;
    }
    // A pipe that is ready takes PIPE_BUF bytes without blocking.
    const ssize_t n = write(fd, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
    return n < 0 && errno == EAGAIN ? 0 : n;
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = write_ready(fd, bytes, signal_interval);
        if (n == 0 && is_told_to_end()) {
            errno = EINTR;
            return false;
        }
        if (n < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string fit(std::string_view text, std::size_t columns) {
    std::string line = printable_text().clean(std::string(text) + '\n');
    // The added line feed made clean() write an incomplete last character; it is not part of the line.
    line.pop_back();
    const auto moves = [](char c) { return c == '\t' || c == '\n'; };
    std::replace_if(line.begin(), line.end(), moves, ' ');
    std::size_t used = 0;
    std::size_t at = 0;
    for (std::size_t length = 0; at < line.size(); at += length) {
        wchar_t wide = 0;
        std::mbstate_t state{};
        length = std::mbrtowc(&wide, line.data() + at, line.size() - at, &state);
        // A character may take two columns of the terminal, or none.
        used += static_cast<std::size_t>(std::max(wcwidth(wide), 0));
        if (used > columns) {
            break;
        }
    }
    line.resize(at);
    return line;
}
