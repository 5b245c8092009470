#include "util/line.h"

#include "util/regular_file.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void chomp(char* text) {
    const std::size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n') {
        text[length - 1] = '\0';
    }
}

int read_one_line_from_file(const char* path, char* buf, std::size_t size) {
    const unique_file file = open_regular_for_reading(path);
    if (file == nullptr || std::fgets(buf, static_cast<int>(size), file.get()) == nullptr) {
        return -1;
    }
    chomp(buf);
    return 0;
}

int decimal_value(const char* text) {
    return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}
