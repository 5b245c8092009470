#include "timer/job_field.h"

#include "trace/trace.h"
#include "util/line.h"
#include "util/text.h"

#include <cctype>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t field_size = 512;

// The numbers of an item like "5", "1-5", "*/2" or "10-20/5".
struct field_item {
    int low;
    int high;
    std::int64_t step;  // wide, so that adding it to a slot number cannot overflow
    bool is_range;      // false: a single value, in low
};

// Returns false when the rest of the field must be ignored.
bool parse_item(const char* text, int n, field_item& item) {
    item = {decimal_value(text), 0, 1, true};
    if (const char* slash = std::strchr(text, '/'); slash != nullptr) {
        item.step = decimal_value(slash + 1);
        if (item.step < 1) {
            trprintf("Error:timer:invalid step\n");
            return false;
        }
    }
    if (text[0] == '*') {
        item.low = 0;
        item.high = n - 1;
        return true;
    }
    const char* dash = std::strchr(text, '-');
    item.is_range = dash != nullptr;
    if (dash == text) {
        trprintf("Error:timer:negative value \"%s\"\n", text);
        return false;
    }
    if (item.is_range) {
        item.high = decimal_value(dash + 1);
        if (item.high >= n) {
            trprintf("Error:timer:too large (%d - %d > %d)\n", item.low, item.high, n);
            return false;
        }
    }
    return true;
}

void set_item(const field_item& item, std::uint8_t* slots, int n) {
    if (item.is_range) {
        for (std::int64_t value = item.low; value <= item.high; value += item.step) {
            slots[value] = 1;
        }
    } else if (item.low >= n) {
        trprintf("Error:timer:too large (%d > %d)\n", item.low, n);
    } else {
        slots[item.low] = 1;
    }
}

}  // namespace

void set_job_field(const char* field, std::uint8_t* slots, int n) {
    char work[field_size];
    copy_text(work, {field, std::strcspn(field, " \t\n\v\f\r")});
    char* rest = nullptr;
    for (const char* text = strtok_r(work, ",", &rest); text != nullptr; text = strtok_r(nullptr, ",", &rest)) {
        field_item item{};
        if (!parse_item(text, n, item)) {
            return;
        }
        set_item(item, slots, n);
    }
}

const char* next_word(const char* text, int lineno) {
    while (*text != '\0' && std::isspace(static_cast<unsigned char>(*text)) == 0) {
        ++text;
    }
    while (*text == ' ') {
        ++text;
    }
    if (std::iscntrl(static_cast<unsigned char>(*text)) != 0) {
        trprintf("Error:timer:job_file:short line at line %d\n", lineno);
        return nullptr;
    }
    return text;
}
