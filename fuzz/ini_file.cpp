// INI files: single keys, and the settings made of them.
#include "util/ini_file.h"

#include "sched/config.h"
#include "support.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    const std::string_view text = fuzz::text_of(data, size);
    suite.write("sched.conf", text);
    suite.write("common.ini", text);
    for (const char* section : {"[sched]", "[section 7]"})
        for (const char* key : {"port_no", "active", "k"}) {
            const char* value = read_ini_file("sched.conf", section, key);
            fuzz::require(value == nullptr || (text.find(section) != text.npos && text.find(key) != text.npos &&
                                               text.find(value) != text.npos && std::strchr(value, '\n') == nullptr),
                          "section, key and value are in the file");
        }
    st->port = 9980;
    st->bound_ip_address[0] = '\0';
    read_config();
    fuzz::require(st->port > 0 && st->pendtime > 0 && st->syslog_poll_interval > 0, "numbers stay positive");
    fuzz::require(std::strlen(st->bound_ip_address) <= 30, "the bound address keeps 30 characters");
    return 0;
}
