// ISO 8601 dates: any moment written and read back, and any text that is accepted as a date.
#include "support.h"
#include "util/clock.h"

#include <cstring>
#include <ctime>

namespace {

// Zones without summer time, since the text has the present offset of the zone.
constexpr const char* zones[] = {"UTC0", "JST-9", "<+0545>-5:45", "<-0330>3:30", "<+14>-14", "<-12>12"};

void write_and_read(std::time_t when) {
    char text[iso_size];
    const int length = date2iso8601(when, text);
    fuzz::require(length == 25 && std::strlen(text) == 25, "years of four digits take 25 characters");
    fuzz::require(iso2date(text) == when, "reading a date gives the moment that was written");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::int64_t when = 0;
    if (size <= sizeof when) return 0;
    std::memcpy(&when, data, sizeof when);
    setenv("TZ", zones[data[sizeof when] % std::size(zones)], 1);
    tzset();
    constexpr std::int64_t first = -62'100'000'000;  // year 2
    constexpr std::int64_t last = 253'300'000'000;   // year 9996
    write_and_read(first + static_cast<std::int64_t>(static_cast<std::uint64_t>(when) % (last - first)));
    const std::string given(fuzz::text_of(data, size).substr(sizeof when + 1));
    if (const std::time_t read = iso2date(given.c_str()); read > first && read < last) write_and_read(read);
    return 0;
}
