#include "command/module_table.h"

#include "comm/reply.h"
#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/line.h"
#include "util/regular_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

module_entry* mod = nullptr;
int mod_max = 0;

namespace {

module_entry* find_module(const char* word) {
    for (int i = 0; i < mod_max; ++i) {
        if (std::strcmp(mod[i].name, word) == 0) {
            return &mod[i];
        }
    }
    return nullptr;
}

bool is_internal_entry(const module_entry& entry) { return entry.entrypath[0] == '-'; }

void clear_table() {
    for (int i = 0; i < module_max; ++i) {
        std::memset(mod[i].name, 0, sizeof mod[i].name);
        mod[i].enabled = 0;
        std::memset(mod[i].entrypath, 0, sizeof mod[i].entrypath);
        std::memset(mod[i].display, 0, sizeof mod[i].display);
        mod[i].timeout = 0;
    }
}

bool parse_entry(const char* line, int number) {
    module_entry& entry = mod[number];
    int timeout_at = 0;
    if (std::sscanf(line, "%511s %511s %511s %n%d", entry.name, entry.entrypath, entry.display, &timeout_at,
                    &entry.timeout) != 4) {
        trprintf("Warning:modules:invalid line. \"%s\"\n", line);
        return false;
    }
    entry.timeout = decimal_value(line + timeout_at);  // sscanf does not limit it to the range of int
    trprintf("Info:modules:%d \"%s\" \"%s\" \"%s\" %d\n", number, entry.name, entry.entrypath, entry.display,
             entry.timeout);
    entry.enabled = 1;
    return true;
}

int parse_list(std::FILE* file) {
    int count = 0;
    char line[module_line_size];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (line[0] < 'a' || line[0] > 'z') {
            continue;
        }
        if (count == module_max) {
            trprintf("Warning:modules:table full (max=%d), ignore remains\n", module_max);
            break;
        }
        if (parse_entry(line, count)) {
            ++count;
        }
    }
    return count;
}

}  // namespace

int read_modules() {
    if (mod == nullptr) {
        mod = new (std::nothrow) module_entry[module_max]{};
        if (mod == nullptr) {
            trprintf("Error:modules:no memory.\n");
            return -1;
        }
    }
    clear_table();
    trprintf("Info:modules:reading \"%s\"\n", st->modules_path);
    unique_file file = open_regular_for_reading(st->modules_path);
    if (file == nullptr) {
        trprintf("Error:modules:open error.(errno=%d)\n", errno);
        return -1;
    }
    const int count = parse_list(file.get());
    file.reset();
    trprintf("Info:modules:read done. %d entries found.\n", count);
    mod_max = count;
    return 0;
}

int is_external(const char* word) {
    const module_entry* entry = find_module(word);
    return entry != nullptr && !is_internal_entry(*entry) ? 1 : 0;
}

int is_internal(const char* word) {
    const module_entry* entry = find_module(word);
    return entry != nullptr && is_internal_entry(*entry) ? 1 : 0;
}

const char* get_entrypath(const char* word) {
    const module_entry* entry = find_module(word);
    return entry != nullptr && !is_internal_entry(*entry) ? entry->entrypath : nullptr;
}

int get_timeout(const char* word) {
    if (mod == nullptr) {
        return -1;
    }
    const module_entry* entry = find_module(word);
    return entry != nullptr ? entry->timeout : 1;
}

int set_module(const char* word, int state) {
    module_entry* entry = find_module(word);
    if (entry == nullptr) {
        return -1;
    }
    if (state == 0 || state == 1) {
        return entry->enabled.exchange(state);
    }
    return entry->enabled;
}

int is_modulebusy(const char* word, const char* /*argument*/) {
    const module_entry* entry = find_module(word);
    return entry != nullptr && entry->enabled == 0 ? 1 : 0;
}

int display_modules(int soc) {
    if (mod == nullptr) {
        return 1;
    }
    for (int i = 0; i < mod_max; ++i) {
        if (mod[i].display[0] != '-') {
            reply(soc, "%s %s\r\n", mod[i].name, mod[i].enabled != 0 ? "on" : "off");
        }
    }
    return 0;
}
