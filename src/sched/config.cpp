#include "sched/config.h"

#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/ini_file.h"
#include "util/line.h"
#include "util/text.h"

#include <arpa/inet.h>
#include <cstring>
#include <string_view>

namespace {

constexpr char section[] = "[sched]";
constexpr std::size_t bound_address_max = 30;  // characters kept
constexpr int prefix_max = 32;

void set_if_positive(std::int32_t& field, const char* value) {
    if (const int number = decimal_value(value); number > 0) {
        field = number;
    }
}

// Returns the mask of a prefix length, host byte order. A length outside 1 to 32 gives the mask of a single address.
std::uint32_t prefix_mask(int length) {
    return length < 1 || length > prefix_max ? 0xffffffff : 0xffffffffU << (prefix_max - length);
}

// Stores "address" or "address/length". Returns false when there is no address.
bool store_allowed_address(const char* token, int index) {
    const char* slash = std::strchr(token, '/');
    const std::size_t length = slash != nullptr ? static_cast<std::size_t>(slash - token) : std::strlen(token);
    char address[128];
    if (copy_text(address, {token, length}) == 0) {
        return false;
    }
    allowed_address& allowed = st->allowed_ip_address[index];
    allowed.addr = inet_addr(address);
    allowed.mask = prefix_mask(slash != nullptr ? decimal_value(slash + 1) : prefix_max);
    trprintf("allowed ip address %d = %s mask %08x\n", index, address, allowed.mask);
    return true;
}

void set_allowed_addresses(const char* value) {
    char list[ini_value_size];
    copy_text(list, value);
    char* rest = nullptr;
    int index = 0;
    for (const char* token = strtok_r(list, " ,\t", &rest); token != nullptr && index < allowed_max;
         token = strtok_r(nullptr, " ,\t", &rest)) {
        if (store_allowed_address(token, index)) {
            ++index;
        }
    }
}

struct setting {
    const char* file;
    const char* key;
    void (*apply)(const char* value);
};

constexpr setting settings[] = {
    {"sched.conf", "udp_dest_addr", [](const char* value) { copy_text(st->udp_dest_addr, value); }},
    {"sched.conf", "udp_dest_port", [](const char* value) { st->udp_dest_port = decimal_value(value); }},
    {"sched.conf", "qmxut_port", [](const char* value) { st->qmxut_port = decimal_value(value); }},
    {"sched.conf", "port_no", [](const char* value) { set_if_positive(st->port, value); }},
    {"sched.conf", "analysis_interval", [](const char* value) { set_if_positive(st->pendtime, value); }},
    {"sched.conf", "syslog_poll_interval", [](const char* value) { set_if_positive(st->syslog_poll_interval, value); }},
    {"common.ini", "bound_ip_address",
     [](const char* value) {
         copy_text(st->bound_ip_address, {value, strnlen(value, bound_address_max)});
     }},
    {"common.ini", "allowed_ip_address", set_allowed_addresses},
};

}  // namespace

void read_config() {
    for (const setting& row : settings) {
        const char* value = read_ini_file(row.file, section, row.key);
        if (value == nullptr) {
            continue;
        }
        // Traced before the check, so that the trace shows a rejected value too.
        trprintf("ini:file=\"%s\" section=\"%s\" key=\"%s\" value=\"%s\"\n", row.file, section, row.key, value);
        row.apply(value);
    }
}
