#include "util/ini_file.h"

#include "util/line.h"
#include "util/regular_file.h"
#include "util/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view separators = " =\t\n";

// One buffer for each thread: HMI threads and the timer thread may read at the same time.
thread_local char result[ini_value_size];

// Splits "key = value". Returns false when there is no key, or no text after the character that ends the key.
bool split_pair(std::string_view line, std::string_view& key, std::string_view& value) {
    const std::size_t start = line.find_first_not_of(separators);
    if (start == std::string_view::npos) {
        return false;
    }
    const std::size_t end = line.find_first_of(separators, start);
    if (end == std::string_view::npos || end + 1 == line.size()) {
        return false;
    }
    key = line.substr(start, end - start);
    value = line.substr(end + 1);
    value.remove_prefix(std::min(value.find_first_not_of(" ="), value.size()));
    return true;
}

bool find_value(std::FILE* file, const char* section, const char* key) {
    bool inside = false;
    char line[ini_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        chomp(line);
        if (line[0] == '#' || line[0] == ';') {
            continue;
        }
        if (line[0] == '[' || !inside) {
            inside = std::strcmp(line, section) == 0;
            continue;
        }
        std::string_view name;
        std::string_view value;
        if (split_pair(line, name, value) && name == key) {
            copy_text(result, value);
            return true;
        }
    }
    return false;
}

}  // namespace

const char* read_ini_file(const char* file, const char* section, const char* key) {
    char path[path_size];
    format_text(path, "%s/%s", environment("VGD_config"), file);
    const unique_file stream = open_regular_for_reading(path);
    return stream != nullptr ? read_ini_stream(stream.get(), section, key) : nullptr;
}

const char* read_ini_stream(std::FILE* file, const char* section, const char* key) {
    std::rewind(file);
    result[0] = '\0';
    return find_value(file, section, key) ? result : nullptr;
}
