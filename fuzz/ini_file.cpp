// INI files: single keys, and what the settings make of any values.
#include "support.h"

#include "sched/config.h"
#include "util/ini_file.h"

#include <cstring>
#include <optional>

namespace {

std::optional<std::string> value_of(std::string_view text, const std::string& section, std::string_view key) {
    bool inside = false;
    for (std::string line : fuzz::pieces_of(text, 1022)) {
        char* rest = nullptr;
        if (line[0] == '[')
            inside = line == section;
        else if (inside && line[0] != '#' && line[0] != ';')
            if (const char* word = strtok_r(line.data(), " =\t", &rest);
                word != nullptr && *rest != '\0' && word == key)
                return rest + std::strspn(rest, " =");
    }
    return std::nullopt;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    const std::string_view text = fuzz::text_of(data, size);
    suite.write("sched.conf", text);
    suite.write("common.ini", text);
    for (const char* section : {"[sched]", "[section 7]"})
        for (const char* key : {"port_no", "active", "k"}) {
            const char* value = read_ini_file("sched.conf", section, key);
            const auto found = value != nullptr ? std::optional<std::string>(value) : std::nullopt;
            fuzz::require(found == value_of(text, section, key), "both readings find the same value");
        }
    st->port = 9980;
    st->bound_ip_address[0] = '\0';
    read_config();
    fuzz::require(st->port > 0 && st->pendtime > 0 && st->syslog_poll_interval > 0, "numbers stay positive");
    fuzz::require(std::strlen(st->bound_ip_address) <= 30, "the bound address keeps 30 characters");
    return 0;
}
