#include "findings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <numeric>
#include <system_error>

namespace check {

namespace {

// The Levenshtein distance: the number of characters to insert, remove or replace.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

void findings::add(const std::string& file, int line, const std::string& text) {
    std::printf("%s:%d: %s\n", file.c_str(), line, text.c_str());
    found_ = true;
}

void findings::unreadable(const std::string& what, const std::string& reason) {
    std::fprintf(stderr, "schedcheck: %s: %s\n", what.c_str(), reason.c_str());
    unreadable_ = true;
}

int findings::finish() {
    errno = EIO;  // the reason of an earlier failure is not kept by the stream
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        unreadable("standard output", std::generic_category().message(errno));
    }
    if (unreadable_) {
        return exit_unreadable;
    }
    return found_ ? exit_findings : exit_clean;
}

std::string printable(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escape[8];
        if (c == '\t') {
            result += "\\t";
        } else if (c == '\r') {
            result += "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            result += escape;
        } else {
            result += c;
        }
    }
    return result;
}

std::string quoted(std::string_view text) {
    constexpr std::size_t shown_max = 100;
    std::string result = "\"";
    result += printable(text.substr(0, shown_max));
    result += text.size() > shown_max ? "...\"" : "\"";
    return result;
}

std::string nearest(std::string_view name, const std::vector<std::string>& known) {
    const auto closest = std::min_element(known.begin(), known.end(), [name](const auto& a, const auto& b) {
        return distance(name, a) < distance(name, b);
    });
    return closest == known.end() ? "" : quoted(*closest);
}

}  // namespace check
