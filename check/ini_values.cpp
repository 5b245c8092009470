#include "ini_values.h"

#include "findings.h"
#include "state/sched_status.h"
#include "util/line.h"
#include "util/unique_fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <regex>
#include <sys/socket.h>

namespace check {

namespace {

constexpr std::size_t bound_address_max = 30;  // characters kept
constexpr int port_max = 65535;
constexpr int prefix_max = 32;

std::string validate_number(const std::string& value, int low, int high) {
    static const std::regex form(R"(\s*[-+]?\d+\s*)");
    const int number = decimal_value(value.c_str());
    if (!std::regex_match(value, form)) {
        return quoted(value) + " is not a number; it is read as " + std::to_string(number);
    }
    if (number < low || number > high || std::stold(value) > INT_MAX) {
        return quoted(value) + " is out of range (" + std::to_string(low) + " to " + std::to_string(high) + ")";
    }
    return "";
}

bool is_address(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// True when the system allows to listen on the address (network byte order) here. No port is taken from other programs.
bool is_own_address(in_addr_t address) {
    const unique_fd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in local{AF_INET, 0, {address}, {}};
    return bind(probe.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 || errno != EADDRNOTAVAIL;
}

// is_first: no entry of the list stands before it.
std::string validate_network(const std::string& token, bool is_first) {
    const std::size_t slash = token.find('/');
    const std::string address = token.substr(0, slash);
    if (address.empty()) {
        return quoted(token) + " has no address and is skipped";
    }
    if (inet_addr(address.c_str()) == INADDR_ANY) {
        return is_first ? quoted(token) + " at the start of the list lets everyone in"
                        : quoted(token) + " lets nobody in; it uses up an entry";
    }
    if (!is_address(address)) {
        return quoted(address) + " is not an IPv4 address";
    }
    const std::string problem =
        slash == std::string::npos ? "" : validate_number(token.substr(slash + 1), 1, prefix_max);
    return problem.empty() ? "" : "prefix length " + problem + "; only the one address is let in";
}

}  // namespace

std::string validate_port(const std::string& value) { return validate_number(value, 1, port_max); }

std::string validate_seconds(const std::string& value) { return validate_number(value, 1, INT_MAX); }

std::string validate_address(const std::string& value) {
    // The scheduler's conversion ends at white space, too.
    return is_address(value.substr(0, value.find_last_not_of(" \t\r") + 1)) ? ""
                                                                            : quoted(value) + " is not an IPv4 address";
}

std::string validate_bound_address(const std::string& value) {
    if (value.size() > bound_address_max) {
        return quoted(value) + " is cut to " + std::to_string(bound_address_max) + " characters";
    }
    std::string problem = validate_address(value);
    if (problem.empty() && !is_own_address(inet_addr(value.c_str()))) {
        problem = quoted(value) + " is not an address of this machine: the scheduler cannot listen on it";
    }
    return problem;
}

std::string validate_networks(const std::string& value) {
    static const std::regex separators("[ ,\t]+");
    int count = 0;
    std::string problems;
    for (std::sregex_token_iterator token(value.begin(), value.end(), separators, -1), end; token != end; ++token) {
        if (token->length() == 0) {
            continue;
        }
        std::string problem = validate_network(*token, count == 0);
        if (*token->first != '/' && ++count > allowed_max) {
            problem = quoted(token->str()) + " is ignored: at most " + std::to_string(allowed_max) + " are kept";
        }
        if (!problem.empty()) {
            problems += (problems.empty() ? "" : "; ") + problem;
        }
    }
    return count == 0 && problems.empty() ? "an empty list lets everyone in" : problems;
}

std::string validate_switch(const std::string& value) {
    return value == "yes" || value == "no" ? "" : quoted(value) + " is neither \"yes\" nor \"no\"; it is taken as no";
}

std::string validate_text(const std::string& value) {
    return value.find_first_not_of(" \t\r") == std::string::npos ? "the value is empty" : "";
}

}  // namespace check
