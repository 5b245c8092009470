#include "ini_check.h"

#include "config_lines.h"
#include "ini_values.h"
#include "util/ini_file.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <utility>

namespace check {

namespace {

struct known_key {
    const char* name;
    value_validator validate;
};

struct known_file {
    const char* name;
    std::vector<std::string> sections;
    std::vector<known_key> keys;
};

// The sections that the scheduler and its forwarding look through.
std::vector<std::string> receiver_sections() {
    constexpr int section_max = 100;
    std::vector<std::string> sections;
    sections.reserve(section_max);
    for (int n = 0; n < section_max; ++n) {
        sections.push_back("[section " + std::to_string(n) + "]");
    }
    return sections;
}

const std::vector<known_file>& known_files() {
    static const std::vector<known_file> files = {
        {"sched.conf",
         {"[sched]"},
         {{"port_no", validate_port},
          {"analysis_interval", validate_seconds},
          {"syslog_poll_interval", validate_seconds},
          {"udp_dest_addr", validate_address},
          {"udp_dest_port", validate_port},
          {"qmxut_port", validate_port}}},
        {"common.ini",
         {"[sched]"},
         {{"bound_ip_address", validate_bound_address}, {"allowed_ip_address", validate_networks}}},
        {"pvo.ini",
         receiver_sections(),
         {{"active", validate_switch}, {"address", validate_text}, {"port", validate_port}}},
    };
    return files;
}

// The value that the daemon's reader finds for key behind a section header; null when it finds none.
const char* value_behind(const std::string& header, const std::string& line, const std::string& key) {
    scratch().put(header + "\n" + line);
    return read_ini_file(scratch().name().c_str(), header.c_str(), key.c_str());
}

std::string first_word(const std::string& line) {
    constexpr const char* separators = " =\t\n";
    const std::size_t begin = line.find_first_not_of(separators);
    return begin == std::string::npos ? "" : line.substr(begin, line.find_first_of(separators, begin) - begin);
}

std::string without_newline(const std::string& line) { return line.substr(0, line.find('\n')); }

// The other file that this key belongs to, if any.
const known_file* owner_of(const std::string& key, const known_file& asked) {
    for (const known_file& file : known_files()) {
        const bool has = std::ranges::any_of(file.keys, [&key](const known_key& k) { return key == k.name; });
        if (has && &file != &asked) {
            return &file;
        }
    }
    return nullptr;
}

class ini_file {
public:
    ini_file(std::string path, const known_file& known, findings& to)
        : path_(std::move(path)), known_(known), to_(to) {}

    void validate(const line_piece& line) {
        if (line.text[0] == '#' || line.text[0] == ';') {
            return;
        }
        if (line.text[0] == '[') {
            validate_header(line);
        } else if (!is_blank(line.text)) {
            validate_pair(line);
        }
    }

private:
    void add(const line_piece& line, const std::string& text) { to_.add(path_, line.number, text); }

    void validate_header(const line_piece& line) {
        const auto opened = std::ranges::find_if(known_.sections, [&line](const std::string& header) {
            scratch().put(line.text + "\nkey=value");
            return read_ini_file(scratch().name().c_str(), header.c_str(), "key") != nullptr;
        });
        inside_ = opened != known_.sections.end();
        section_ = without_newline(line.text);
        if (!inside_) {
            add(line, "unknown section " + quoted(section_) + "; the nearest known one is " +
                          nearest(section_, known_.sections));
        }
    }

    void validate_pair(const line_piece& line) {
        const std::string key = first_word(line.text);
        if (!inside_) {
            add(line, quoted(without_newline(line.text)) +
                          (section_.empty() ? " stands before any section and is not read"
                                            : " is in the section " + quoted(section_) + ", which is not read"));
            return;
        }
        const auto known = std::ranges::find_if(known_.keys, [&key](const known_key& k) { return key == k.name; });
        if (known == known_.keys.end()) {
            add(line, unknown_key(key));
            return;
        }
        const char* value = value_behind(section_, line.text, key);
        if (value == nullptr) {
            add(line, quoted(key) + " has no value; the line is skipped");
            return;
        }
        const auto [first, is_new] = first_line_.emplace(std::pair(section_, key), line.number);
        if (!is_new) {
            add(line, quoted(key) + " is not read: line " + std::to_string(first->second) + " sets it already");
        }
        if (const std::string problem = known->validate(value); !problem.empty()) {
            add(line, key + ": " + problem);
        }
    }

    std::string unknown_key(const std::string& key) const {
        if (key.starts_with("#") || key.starts_with(";")) {
            return "a comment begins in the first column; this line is read as a setting";
        }
        if (const known_file* owner = owner_of(key, known_); owner != nullptr) {
            return quoted(key) + " is not read from here; it belongs in " + owner->name;
        }
        std::vector<std::string> names;
        std::ranges::transform(known_.keys, std::back_inserter(names), &known_key::name);
        return "unknown key " + quoted(key) + "; the nearest known one is " + nearest(key, names);
    }

    std::string path_;
    const known_file& known_;
    findings& to_;
    bool inside_ = false;
    std::string section_;
    std::map<std::pair<std::string, std::string>, int> first_line_;
};

}  // namespace

void check_ini_files(const std::string& directory, findings& to) {
    // The daemon's reader takes a file name below VGD_config; the file that it reads here is in memory.
    setenv("VGD_config", scratch_file::directory(), 1);  // NOLINT(concurrency-mt-unsafe): no threads here
    for (const known_file& known : known_files()) {
        const std::string path = directory + "/" + known.name;
        ini_file file(path, known, to);
        validate_lines(path, ini_line_size, missing_file::allowed, to,
                       [&file](const line_piece& line) { file.validate(line); });
    }
}

}  // namespace check
