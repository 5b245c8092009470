#include "ini_values.h"

#include "report.h"
#include "state/sched_status.h"
#include "util/line.h"

#include <arpa/inet.h>
#include <climits>
#include <cstdint>
#include <regex>

namespace check {

namespace {

constexpr std::size_t bound_address_max = 30;  // characters kept
constexpr int port_max = 65535;
constexpr int prefix_max = 32;

std::string judge_number(const std::string& value, int low, int high) {
    static const std::regex form(R"(\s*[-+]?\d+\s*)");
    const int number = decimal_value(value.c_str());
    if (!std::regex_match(value, form)) {
        return quoted(value) + " is not a number; it is read as " + std::to_string(number);
    }
    if (number < low || number > high || std::stold(value) > INT_MAX) {
        return quoted(value) + " is out of range (" + std::to_string(low) + " to " + std::to_string(high) +
               ")";
    }
    return "";
}

bool is_address(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string judge_network(const std::string& token) {
    const std::size_t slash = token.find('/');
    const std::string address = token.substr(0, slash);
    if (address.empty()) {
        return quoted(token) + " has no address and is skipped";
    }
    if (!is_address(address)) {
        return quoted(address) + " is not an IPv4 address";
    }
    if (inet_addr(address.c_str()) == INADDR_ANY) {
        return quoted(token) + " ends the list: 0.0.0.0 marks an empty entry";
    }
    const std::string problem =
        slash == std::string::npos ? "" : judge_number(token.substr(slash + 1), 1, prefix_max);
    return problem.empty() ? "" : "prefix length " + problem + "; only the one address is let in";
}

}  // namespace

std::string judge_port(const std::string& value) {
    return judge_number(value, 1, port_max);
}

std::string judge_seconds(const std::string& value) {
    return judge_number(value, 1, INT_MAX);
}

std::string judge_address(const std::string& value) {
    // The scheduler's conversion ends at white space, too.
    return is_address(value.substr(0, value.find_last_not_of(" \t\r") + 1))
               ? ""
               : quoted(value) + " is not an IPv4 address";
}

std::string judge_bound_address(const std::string& value) {
    return value.size() > bound_address_max
               ? quoted(value) + " is cut to " + std::to_string(bound_address_max) + " characters"
               : judge_address(value);
}

std::string judge_networks(const std::string& value) {
    static const std::regex separators("[ ,\t]+");
    int count = 0;
    std::string problems;
    for (std::sregex_token_iterator token(value.begin(), value.end(), separators, -1), end; token != end;
         ++token) {
        if (token->length() == 0) {
            continue;
        }
        std::string problem = judge_network(*token);
        if (problem.empty() && ++count > allowed_max) {
            problem =
                quoted(token->str()) + " is ignored: at most " + std::to_string(allowed_max) + " are kept";
        }
        if (!problem.empty()) {
            problems += (problems.empty() ? "" : "; ") + problem;
        }
    }
    return count == 0 && problems.empty() ? "an empty list lets everyone in" : problems;
}

std::string judge_switch(const std::string& value) {
    return value == "yes" || value == "no"
               ? ""
               : quoted(value) + " is neither \"yes\" nor \"no\"; it is taken as no";
}

std::string judge_text(const std::string& value) {
    return value.find_first_not_of(" \t\r") == std::string::npos ? "the value is empty" : "";
}

}  // namespace check
