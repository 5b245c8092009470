#include "host_list.h"

#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iostream>
#include <system_error>

namespace client {

namespace {

constexpr std::string_view blanks = " \t\r";  // CR: a file may have lines of CR LF

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool add_host(std::string_view entry, std::uint16_t port, std::vector<host_name>& hosts,
              std::string& problem) {
    host_name host{std::string(entry), std::string(entry.substr(0, entry.find(':'))), port};
    // Two names in one line of a file would be looked up as one name.
    bool good = !host.name.empty() && entry.find_first_of(" \t,") == std::string_view::npos;
    if (const std::size_t colon = entry.find(':'); colon != std::string_view::npos) {
        const std::string_view digits = entry.substr(colon + 1);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), host.port);
        // from_chars stops at the first character that is no digit, so the end is checked too.
        good = good && error == std::errc() && end == digits.data() + digits.size() && host.port != 0;
    }
    if (!good) {
        problem = "\"" + host.label + "\" is not name[:port]";
        return false;
    }
    // A host that is named twice would get the command twice.
    const auto is_same = [&](const host_name& h) { return h.name == host.name && h.port == host.port; };
    if (std::none_of(hosts.begin(), hosts.end(), is_same)) {
        hosts.push_back(std::move(host));
    }
    return true;
}

}  // namespace

endpoint endpoint_of(const host_name& host) {
    return {host.name, host.port, "", 0};
}

bool add_hosts(std::string_view list, std::uint16_t port, std::vector<host_name>& hosts,
               std::string& problem) {
    for (;;) {
        const std::size_t comma = list.find(',');
        const std::string_view entry = trimmed(list.substr(0, comma));
        // A script that joins names may leave a comma at the end; empty entries do no harm.
        if (!entry.empty() && !add_host(entry, port, hosts, problem)) {
            return false;
        }
        if (comma == std::string_view::npos) {
            break;
        }
        list.remove_prefix(comma + 1);
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
    int number = 0;
    for (std::string line; std::getline(input, line);) {
        ++number;
        const std::string_view entry = trimmed(std::string_view(line).substr(0, line.find('#')));
        if (!entry.empty() && !add_host(entry, port, hosts, problem)) {
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
