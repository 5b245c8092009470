// What the scheduler makes of the values of its settings.
#pragma once

#include <string>

namespace check {

// What is wrong with the value of a setting; empty: nothing.
using value_validator = std::string (*)(const std::string& value);

std::string validate_port(const std::string& value);
std::string validate_seconds(const std::string& value);  // above 0
std::string validate_address(const std::string& value);  // one IPv4 address
// One IPv4 address of this machine, of at most 30 characters, which is what the scheduler stores.
std::string validate_bound_address(const std::string& value);
std::string validate_networks(const std::string& value);  // addresses with optional prefix lengths
std::string validate_switch(const std::string& value);    // "yes" or "no"
std::string validate_text(const std::string& value);      // not empty

}  // namespace check
