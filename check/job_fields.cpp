#include "job_fields.h"

#include "findings.h"
#include "timer/job_field.h"
#include "timer/job_table.h"

#include <cctype>
#include <cstring>
#include <regex>

namespace check {

namespace {

struct time_field {
    const char* name;
    int low;
    int high;
    int slots;
};

constexpr time_field fields[] = {{"minute", 0, 59, minute_slots},
                                 {"hour", 0, 23, hour_slots},
                                 {"day of the month", 1, 31, mday_slots},
                                 {"month", 1, 12, month_slots},
                                 {"day of the week", 0, 6, wday_slots}};

// What is wrong with a number of an item; empty: nothing.
std::string validate_number(const std::string& digits, const time_field& field) {
    const long value = std::strtol(digits.c_str(), nullptr, 10);
    if (value >= field.low && value <= field.high) {
        return "";
    }
    return digits + " is out of range (" + std::to_string(field.low) + " to " + std::to_string(field.high) + ")";
}

std::string validate_item(const std::string& item, const time_field& field) {
    static const std::regex form(R"((?:\*|(\d{1,9})(?:-(\d{1,9}))?)(?:/(\d{1,9}))?)");
    std::smatch part;
    if (item.empty()) {
        return "an empty item is skipped";
    }
    if (!std::regex_match(item, part, form)) {
        const bool is_name =
            std::isalpha(static_cast<unsigned char>(item[0])) != 0 && item.find_first_of("0123456789/") == item.npos;
        return std::string("not a number, a range or *") + (!is_name ? ""
                                                            : field.slots == wday_slots
                                                                ? "; it is read as 0, which is Sunday"
                                                                : "; it is read as 0");
    }
    const bool is_range = part[2].matched;
    for (const int i : {1, 2}) {
        std::string problem = part[i].matched ? validate_number(part[i], field) : "";
        if (!problem.empty()) {
            return problem;
        }
    }
    if (is_range && std::stol(part[1]) > std::stol(part[2])) {
        return "the range is empty";
    }
    if (part[3].matched && std::stol(part[3]) == 0) {
        return "a step of 0 ends the field";
    }
    return part[3].matched && part[1].matched && !is_range ? "the step after a single value is ignored" : "";
}

std::string finding_in(const time_field& field, const std::string& text, const std::string& problem) {
    return std::string(field.name).append(" ").append(quoted(text)).append(": ").append(problem);
}

// Appends what is wrong with one field.
void validate_field(const std::string& text, const time_field& field, std::vector<std::string>& findings) {
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const std::string item = text.substr(begin, end - begin);
        if (const std::string problem = validate_item(item, field); !problem.empty()) {
            findings.push_back(finding_in(field, item, problem));
        }
        begin = end + 1;
    }
}

}  // namespace

std::vector<std::string> validate_fields(const std::string& line) {
    if (line[0] == ' ') {
        return {"the blank at the start makes the minute empty and moves every field by one"};
    }
    std::vector<std::string> findings;
    const char* text = line.c_str();
    for (const time_field& field : fields) {
        // Only a space ends a field: with any other blank, the scheduler drops the line.
        validate_field({text, std::strcspn(text, " ")}, field, findings);
        text = next_word(text, 1);
    }
    return findings;
}

std::string command_of(const std::string& line) {
    const char* text = line.c_str();
    for (std::size_t i = 0; i < std::size(fields); ++i) {
        text = next_word(text, 1);
    }
    return {text, std::strcspn(text, "\n")};
}

}  // namespace check
