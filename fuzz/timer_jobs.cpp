// Timer job files: the answer to `debug timer` compared with one computed here from the text.
#include "support.h"
#include "timer/job_listing.h"
#include "timer/job_table.h"

#include <sys/socket.h>

namespace {

constexpr std::size_t widths[] = {minute_slots, hour_slots, mday_slots, month_slots, wday_slots};

long number(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); }

// One digit for each slot, as in the answer.
std::string slots_of(std::string list, std::size_t width) {
    std::string slots(width, '0');
    const long n = static_cast<long>(width);
    list += ',';
    for (std::size_t comma; (comma = list.find(',')) != list.npos; list.erase(0, comma + 1)) {
        const std::string item = list.substr(0, comma);
        const std::size_t dash = item.find('-');
        const std::size_t slash = item.find('/');
        const long step = slash == item.npos ? 1 : number(item.substr(slash + 1));
        const bool star = item[0] == '*';
        const bool range = !star && dash != item.npos;
        const long low = star ? 0 : number(item);
        const long high = star ? n - 1 : range ? number(item.substr(dash + 1)) : low;
        if (step < 1 || (range && (dash == 0 || high >= n))) break;
        for (long slot = low; !item.empty() && low < n && slot <= high && slot < n; slot += std::min(step, n))
            slots[static_cast<std::size_t>(slot)] = '1';
    }
    return slots;
}

// The five time fields of a line and its command; empty when one is missing.
std::vector<std::string> fields_of(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (fields.size() < std::size(widths)) {
        const std::size_t end = std::min(line.find_first_of(" \t\v\f\r", start), line.size());
        fields.push_back(line.substr(start, end - start));
        start = std::min(line.find_first_not_of(' ', end), line.size());
        if (start == line.size() || (line[start] >= 0 && line[start] < ' ') || line[start] == 127) return {};
    }
    fields.push_back(line.substr(start, 299));
    return fields;
}

std::string dump_of(std::string_view text) {
    std::string jobs;
    int count = 0;
    for (const std::string& line : fuzz::pieces_of(text, 511)) {
        std::vector<std::string> fields = fields_of(line);
        if (line[0] == '#' || fields.empty() || count == job_max) continue;
        if (fields[2] == "*")  // with one "*" the other day field decides; two mean every day
            fields[2].clear();
        else if (fields[4] == "*")
            fields[4].clear();
        jobs += "job#" + std::to_string(count++) + " \"" + fields[5] + "\"\r\n";
        for (const auto& [label, i] :
             {std::pair{"wday  =", 4U}, {"month =", 3U}, {"mday  =", 2U}, {"hour  =", 1U}, {"minute=", 0U}})
            jobs += label + slots_of(fields[i], widths[i]) + "\r\n";
    }
    return "Timer Jobs (jmax=" + std::to_string(count) +
           ")\r\n       012345678901234567890123456789012345678901234567890123456789012\r\n" + jobs;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("timer_jobs", fuzz::text_of(data, size));
    timer_read_jobs();
    int ends[2];
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "sockets are created");
    show_timer_jobs(ends[0]);
    close(ends[0]);
    fuzz::require(fuzz::read_to_end(ends[1]) == dump_of(fuzz::text_of(data, size)),
                  "daemon and check give the same table");
    close(ends[1]);
    return 0;
}
