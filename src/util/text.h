// Copying and formatting text into buffers of fixed size, and reading the environment.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

constexpr std::size_t path_size = 4096;  // bytes of a path, its NUL included

// Returns the value of an environment variable, or an empty text when it is not set. Nothing changes the environment once
// there are threads, so any thread may call it.
inline const char* environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see above
    return value != nullptr ? value : "";
}

// Copies text into a buffer whose size comes from its type; cuts what does not fit and always ends with NUL.
// Returns the number of characters stored.
template <std::size_t N>
std::size_t copy_text(char (&to)[N], std::string_view text) {
    const std::size_t length = std::min(text.size(), N - 1);
    std::copy_n(text.data(), length, to);
    to[length] = '\0';
    return length;
}

// Formats into a buffer whose size comes from its type; cuts what does not fit and always ends with NUL.
// Returns the number of characters stored.
template <std::size_t N>
[[gnu::format(printf, 2, 3)]] std::size_t format_text(char (&to)[N], const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(to, N, format, arguments);
    va_end(arguments);
    if (wanted < 0) {
        to[0] = '\0';
        return 0;
    }
    return std::min(static_cast<std::size_t>(wanted), N - 1);
}
