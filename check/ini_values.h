// What the scheduler makes of the values of its settings.
#pragma once

#include <string>

namespace check {

// What is wrong with the value of a setting; empty: nothing.
using value_judge = std::string (*)(const std::string& value);

std::string judge_port(const std::string& value);
std::string judge_seconds(const std::string& value);        // above 0
std::string judge_address(const std::string& value);        // one IPv4 address
std::string judge_bound_address(const std::string& value);  // the same, as long as the scheduler keeps
std::string judge_networks(const std::string& value);       // addresses with optional prefix lengths
std::string judge_switch(const std::string& value);         // "yes" or "no"
std::string judge_text(const std::string& value);           // anything but nothing

}  // namespace check
