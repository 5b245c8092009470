#include "net/host_list.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <system_error>

namespace client {

namespace {

constexpr std::string_view blanks = " \t\r";  // CR: a file may have lines of CR LF
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A list to which each host is added only once: a host that is named twice would get the command twice.
struct host_adder {
    const std::uint16_t port;
    std::vector<host_name>& hosts;
    std::set<std::string> known = {};

    bool add(std::string_view entry, std::string_view tags, std::string& problem) {
        const std::size_t colon = entry.find(':');
        host_name host{std::string(entry), std::string(entry.substr(0, colon)), port, std::string(tags)};
        for (char& c : host.name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        // Two names in one entry would be looked up as one name.
        bool good = !host.name.empty() && entry.find_first_of(" \t,") == std::string_view::npos;
        if (colon != std::string_view::npos) {
            const std::string_view digits = entry.substr(colon + 1);
            const auto [end, error] =
                std::from_chars(digits.data(), digits.data() + digits.size(), host.port);
            // from_chars stops at the first character that is no digit, so the end is checked too.
            good = good && error == std::errc() && end == digits.data() + digits.size() && host.port != 0;
        }
        if (!good) {
            problem = "\"" + host.label + "\" is not name[:port]";
        } else if (known.insert(key_of(host)).second) {
            hosts.push_back(std::move(host));
        }
        return good;
    }
};

// Returns the first of the tags that is not name=value, such as a second host in the line; empty when all are.
std::string wrong_tag(std::string_view tags) {
    const auto of_name = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
    std::istringstream words{std::string(tags)};
    for (std::string tag; words >> tag;) {
        const auto name_end = std::find_if_not(tag.begin(), tag.end(), of_name);
        if (name_end == tag.begin() || name_end == tag.end() || *name_end != '=' ||
            std::isdigit(tag[0]) != 0) {
            return tag;
        }
    }
    return "";
}

// Adds the host of one line of a file.
bool add_line(std::string_view line, host_adder& hosts, std::string& problem) {
    line = trimmed(line.substr(0, line.find('#')));
    const std::string_view entry = line.substr(0, line.find_first_of(blanks));
    const std::string_view tags = trimmed(line.substr(entry.size()));
    if (const std::string wrong = wrong_tag(tags); !wrong.empty()) {
        problem = "\"" + wrong + "\" is not name=value";
        return false;
    }
    return entry.empty() || hosts.add(entry, tags, problem);
}

}  // namespace

std::string key_of(const host_name& host) {
    std::string name = host.name == "localhost" ? "127.0.0.1" : host.name;
    // It becomes a file name, so a slash must not get into it.
    for (char& c : name) {
        const auto byte = static_cast<unsigned char>(c);
        c = std::isalnum(byte) != 0 || c == '.' || c == '-' ? static_cast<char>(std::tolower(byte)) : '_';
    }
    return name + ":" + std::to_string(host.port);
}

bool add_hosts(std::string_view list, std::uint16_t port, std::vector<host_name>& hosts,
               std::string& problem) {
    host_adder adder{port, hosts};
    std::istringstream entries{std::string(list)};
    for (std::string entry; std::getline(entries, entry, ',');) {
        // A script that joins names may leave a comma at the end; empty entries do no harm.
        if (!trimmed(entry).empty() && !adder.add(trimmed(entry), "", problem)) {
            return false;
        }
    }
    if (hosts.empty()) {
        problem = "no host is named";
    }
    return !hosts.empty();
}

bool read_hosts(const std::string& file, std::uint16_t port, std::vector<host_name>& hosts,
                std::string& problem) {
    std::ifstream opened;
    errno = 0;  // a stream does not store the reason of a failure
    if (file != "-") {
        opened.open(file);
    }
    std::istream& input = file == "-" ? std::cin : opened;
    host_adder adder{port, hosts};
    int number = 0;
    for (std::string line; std::getline(input, line);) {
        if (++number == 1 && line.starts_with(byte_order_mark)) {
            line.erase(0, byte_order_mark.size());
        }
        if (!add_line(line, adder, problem)) {
            problem.insert(0, file + ":" + std::to_string(number) + ": ");
            return false;
        }
    }
    // At the end of a file errno may have an old value, so it counts only before the end.
    if (errno != 0 && !input.eof()) {
        problem = file + ": " + std::generic_category().message(errno);
        return false;
    }
    if (hosts.empty()) {
        problem = file + ": no host is named";
    }
    return !hosts.empty();
}

}  // namespace client
