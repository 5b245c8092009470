// Files of settings, lists of modules and lists of addresses, made at random near the borders of what is valid, and
// what they must mean, computed independently of the daemon's code.
#include "sched/config.h"

#include "comm/address_restriction.h"
#include "command/module_table.h"
#include "property.h"
#include "util/ini_file.h"
#include "util/unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <map>
#include <numeric>
#include <optional>
#include <regex>
#include <sstream>

namespace unit {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

// The lines of a file for a reader whose buffer takes that many bytes: the rest of a longer line is the next one, and a
// line ends at its first NUL.
static Texts lines_of(std::string text, std::size_t most) {
    Texts lines;
    while (!text.empty()) {
        const std::size_t length = std::min({text.find('\n'), text.size() - 1, most - 1}) + 1;
        std::string line = text.substr(0, length);
        if (line.back() == '\n') line.pop_back();
        lines.emplace_back(line.c_str());
        text.erase(0, length);
    }
    return lines;
}

// A text of one of each of these, one after the other.
static std::string draw(const std::vector<Texts>& parts) {
    std::string text;
    for (const Texts& some : parts) text += *rc::gen::elementOf(some);
    return text;
}

struct ConfigProperty : Scratch {};

static std::optional<std::string> setting_of(const std::string& text) {
    static const std::regex pair("[ =\t]*([^ =\t]+)[ =\t]([\\s\\S]+)");
    bool inside = false;
    for (const std::string& line : lines_of(text, ini_line_size - 1)) {
        std::smatch words;
        if (line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[' || !inside) {
            inside = line == "[s]";
        } else if (std::regex_match(line, words, pair) && words[1] == "a") {
            std::string value = words[2];
            return value.erase(0, value.find_first_not_of(" ="));
        }
    }
    return {};
}

TEST_F(ConfigProperty, SettingIsTheFirstOfItsKeyInItsSection) {
    const int free = unique_fd(dup(STDERR_FILENO)).get();
    const auto draw_line = rc::gen::exec([] {
        if (*rc::gen::inRange(0, 4) == 0)
            return draw({{"[s]", "[s]", "[s]", "[x]", "[S]", " [s]"}, {"", "", "", " ", "x"}, {"\n", "\n", "\r\n"}});
        return draw({{"", "", "", "", " ", "\t", " =", "#", ";", "LONG", "#LONG"},
                     {"a", "a", "a", "b", "A", "aa", ""},
                     {"=", " = ", " ", "\t=\t", "==", "=\0"s, "=LONG", ""},
                     {"1", "2", "", "\t", "b = c ;d", "3 ", "[s]", "a=4"},
                     {"\n", "\n", "\n", "\n", "\r\n", ""}});
    });
    EXPECT_TRUE(rc::check("setting is the first of its key in its section", [&] {
        const auto lines = *rc::gen::container<Texts>(draw_line);
        const std::string filler = pattern(*rc::gen::inRange<std::size_t>(1010, 1024));
        std::string text = *rc::gen::element<std::string>("", "[s]\n", "[s]\n");
        for (const std::string& line : lines) text += expand(line, {{"LONG", filler}});
        write("config/t.ini", text);
        const char* value = read_ini_file("t.ini", "[s]", "a");
        RC_ASSERT((value != nullptr ? std::optional<std::string>(value) : std::nullopt) == setting_of(text));
    }));
    EXPECT_EQ(read_ini_file("missing.ini", "[s]", "a"), nullptr);
    EXPECT_EQ(unique_fd(dup(STDERR_FILENO)).get(), free);
}

struct ModuleLine {
    std::string name, program, display;
    int timeout = 0;
};

static std::vector<ModuleLine> modules_of(const std::string& text) {
    static const std::regex entry("([a-z]\\S*)\\s+(\\S+)\\s+(\\S+)\\s+([-+]?[0-9]+)[\\s\\S]*");
    std::vector<ModuleLine> all;
    for (const std::string& line : lines_of(text, module_line_size - 1)) {
        std::smatch words;
        if (all.size() == module_max || !std::regex_match(line, words, entry)) continue;
        all.push_back({words[1], words[2], words[3]});
        std::istringstream(words[4]) >> all.back().timeout;  // the nearest to a number that is too large
    }
    return all;
}

TEST_F(ConfigProperty, ModulesAreTheFirstHundredValidLinesAndTheFirstOfANameCounts) {
    const Texts blanks = {" ", " ", " ", "\t", " \t", "\v"};
    const auto draw_line = rc::gen::exec([&] {
        return draw({{"a", "mm", "z", "a", "{", "`", "A", "#", " a", "1", "", "LONG", "mLONG"},
                     blanks,
                     {"p", "-", "-p", "/x/y"},
                     blanks,
                     {"-", "x", "-x", "show"},
                     blanks,
                     {"0", "1", "-7", "+5x", "2147483648", "-99999999999999999999", "x", "", "60 rest", "LONG8"},
                     {"\n", "\n", "\n", "\r\n", ""}});
    });
    EXPECT_TRUE(rc::check("modules are the first hundred valid lines", [&] {
        const std::string line = *draw_line;
        const auto lines = *rc::gen::container<Texts>(draw_line);
        std::string text;
        for (int i = *rc::gen::element(0, 0, 0, 99, 100); i > 0; --i) text += line;
        for (const std::string& other : lines) text += other;
        const std::string filler = *rc::gen::element<std::string>(" ", "\t", "b");
        for (std::size_t n = *rc::gen::inRange<std::size_t>(480, 512), at; (at = text.find("LONG")) != text.npos;)
            text.replace(at, 4, std::string(n, filler[0]));
        write("config/vgd_modules", text);
        RC_ASSERT(read_modules() == 0);
        const std::vector<ModuleLine> wanted = modules_of(text);
        RC_ASSERT(wanted.size() == static_cast<std::size_t>(mod_max));
        std::map<std::string, ModuleLine> first;
        for (const module_entry* entry = mod; const ModuleLine& module : wanted) {
            RC_ASSERT(std::tie(module.name, module.program, module.display) ==
                      std::tuple(std::string(entry->name), std::string(entry->entrypath), std::string(entry->display)));
            RC_ASSERT(entry->enabled == 1 && entry->timeout == module.timeout);
            first.emplace(module.name, module);
            ++entry;
        }
        for (const auto& [name, module] : first) {
            const bool is_internal_word = module.program[0] == '-';
            RC_ASSERT(is_internal(name.c_str()) == (is_internal_word ? 1 : 0));
            RC_ASSERT(is_external(name.c_str()) == (is_internal_word ? 0 : 1));
            RC_ASSERT(get_timeout(name.c_str()) == module.timeout);
            const char* program = get_entrypath(name.c_str());
            RC_ASSERT((program != nullptr ? program : "none") == (is_internal_word ? "none" : module.program));
        }
    }));
}

// Whether an address is admitted by a list in the settings.
static bool is_admitted(const std::string& list, std::uint32_t peer) {
    static const std::regex word("[^ ,\t]+");
    std::vector<std::pair<std::uint32_t, int>> entries;  // address, host byte order, and prefix length
    for (std::sregex_iterator at(list.begin(), list.end(), word); at != std::sregex_iterator() && entries.size() < 10;
         ++at) {
        const std::string text = at->str();
        const std::size_t slash = std::min(text.find('/'), text.size());
        const int length = slash < text.size() ? std::atoi(&text[slash + 1]) : 32;
        if (slash > 0)
            entries.emplace_back(ntohl(inet_addr(text.substr(0, slash).c_str())),
                                 length < 1 || length > 32 ? 32 : length);
    }
    if (entries.empty() || entries[0].first == 0 || peer == INADDR_LOOPBACK) return true;
    return std::any_of(entries.begin(), entries.end(), [peer](const auto& entry) {
        return entry.first != 0 && ((entry.first ^ peer) >> (32 - entry.second)) == 0;
    });
}

TEST_F(ConfigProperty, AddressesAreAdmittedByTheListAndByNothingElse) {
    const Texts addresses = {"10.0.0.0", "10.1.2.3", "127.0.0.1",       "192.168.1.77", "0.0.0.0",
                             "",         "x",        "255.255.255.255", "10.1"};
    const auto draw_entry = rc::gen::exec([&] {
        const std::string length = "/" + std::to_string(*rc::gen::inRange(-1, 35));
        return draw({addresses, {"", length, length, length, length + "x"}, {" ", ",", "\t", ", ", ",,"}});
    });
    EXPECT_TRUE(rc::check("addresses are admitted by the list and by nothing else", [&] {
        const auto entries = *rc::gen::container<Texts>(draw_entry);
        const std::string list = std::accumulate(entries.begin(), entries.end(), ""s);
        write("config/common.ini", "[sched]\nallowed_ip_address = " + list + "\n");
        for (allowed_address& entry : st->allowed_ip_address) entry = {};
        read_config();
        for (const std::string& address : addresses)
            for (int bit = 0; bit <= 32; ++bit) {  // one bit away from each of them, and none
                const std::uint32_t peer = inet_network(address.c_str()) ^ (bit < 32 ? 1U << bit : 0);
                RC_ASSERT((check_ip_address_restriction(htonl(peer)) == 0) == is_admitted(list, peer));
            }
    }));
}

}  // namespace unit
