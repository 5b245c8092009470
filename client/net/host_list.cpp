#include "net/host_list.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

host_name parse_host(const std::string& entry, std::uint16_t port) {
    const std::size_t colon = entry.find(':');
    host_name host{entry, entry.substr(0, colon), port};
    for (char& c : host.name) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (colon != std::string::npos) {
        host.port = port_of(std::string_view(entry).substr(colon + 1)).value_or(0);
    }
    // The name becomes part of file names. Two names in one entry would be looked up as one name.
    const auto of_name = [](unsigned char c) { return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_'; };
    if (host.name.empty() || host.port == 0 || !std::all_of(host.name.begin(), host.name.end(), of_name)) {
        throw std::runtime_error("\"" + entry + "\" is not name[:port]");
    }
    return host;
}

// A word that is no tag may be a second host in the line.
void add_tag(const std::string& tag, host_name& host) {
    const auto of_name = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
    const std::size_t equals = tag.find('=');
    const std::string name = tag.substr(0, equals);
    if (equals == std::string::npos || name.empty() || std::isdigit(static_cast<unsigned char>(name[0])) != 0 ||
        !std::all_of(name.begin(), name.end(), of_name)) {
        throw std::runtime_error("\"" + tag + "\" is not name=value");
    }
    host.tags[name] = tag.substr(equals + 1);
}

// Adds the host of one line of a file, if it has one.
void add_line(const std::string& line, std::uint16_t port, std::vector<host_name>& hosts) {
    std::istringstream words(line.substr(0, line.find('#')));  // a CR at the end counts as a blank
    std::string word;
    if (words >> word) {
        hosts.push_back(parse_host(word, port));
    }
    while (words >> word) {
        add_tag(word, hosts.back());
    }
}

// A host that is named twice would get the command twice. source: comes first in the message when no host
// is named.
std::vector<host_name> each_once(std::vector<host_name> hosts, const std::string& source) {
    if (hosts.empty()) {
        throw std::runtime_error(source + "no host is named");
    }
    std::set<std::string> known;
    std::erase_if(hosts, [&known](const host_name& host) { return !known.insert(key_of(host)).second; });
    return hosts;
}

}  // namespace

std::string key_of(const host_name& host) {
    return (host.name == "localhost" ? "127.0.0.1" : host.name) + ":" + std::to_string(host.port);
}

std::optional<std::uint16_t> port_of(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    // from_chars stops at the first character that is no digit, so the end is checked too.
    const bool is_number = error == std::errc() && end == text.data() + text.size();
    return is_number && port != 0 ? std::optional(port) : std::nullopt;
}

std::vector<host_name> parse_hosts(const std::string& list, std::uint16_t port) {
    std::vector<host_name> hosts;
    std::istringstream entries(list);
    for (std::string entry; std::getline(entries, entry, ',');) {
        const std::size_t first = entry.find_first_not_of(" \t");
        // A script that joins names may leave a comma at the end; empty entries do no harm.
        if (first != std::string::npos) {
            hosts.push_back(parse_host(entry.substr(first, entry.find_last_not_of(" \t") - first + 1), port));
        }
    }
    return each_once(std::move(hosts), "");
}

std::vector<host_name> read_hosts(const std::string& file, std::uint16_t port) {
    std::ifstream opened;
    if (file != "-") {
        opened.open(file);
    }
    std::istream& input = file == "-" ? std::cin : opened;
    std::vector<host_name> hosts;
    int number = 0;
    try {
        for (std::string line; std::getline(input, line);) {
            const bool has_mark = ++number == 1 && line.starts_with(byte_order_mark);
            add_line(has_mark ? line.substr(byte_order_mark.size()) : line, port, hosts);
        }
    } catch (const std::runtime_error& wrong) {
        throw std::runtime_error(file + ":" + std::to_string(number) + ": " + wrong.what());
    }
    if (!input.eof()) {  // a stream does not store the reason of a failure; errno has it
        throw std::runtime_error(file + ": " + std::generic_category().message(errno));
    }
    return each_once(std::move(hosts), file + ": ");
}
