#include "unit_support.h"
#include "util/ini_file.h"
#include "util/interval_sleep.h"
#include "util/line.h"
#include "util/pid_file.h"
#include "util/regular_file.h"

#include <atomic>
#include <fcntl.h>

namespace unit {

struct Util : Scratch {
    static std::string iso_text(std::time_t when) {
        char text[iso_size];
        const int length = date2iso8601(when, text);
        return {text, static_cast<std::size_t>(length)};
    }
};

TEST_F(Util, IniFileGrammar) {
    // A file, and what key a of section [s] has: the value in angle brackets, or nothing. A % and two characters are
    // as long as a line can be.
    for (const auto& [text, expected] :
         rows("[other]\na = 1\n[s]\na = 2\n -> <2>|a=1\n[other]\na=1\n -> |[s]\na=1\na=2\n -> <1>|"
              "[s]\nb=1\n[x]\na=2\n[s]\n[s]\na=3 -> <3>|[s] \na=1\n [s]\na=1\n[s]\r\na=1\n[S]\na=1\n -> |"
              "[s]\n #a\n#a=1\n;a=2\n\n=== \na=3\n -> <3>|[s]\nA=1\naa=2\n[s]x\na=3 -> |[s]\na=5  \n -> <5  >|"
              "[s]\na\t=\t5000\n -> <\t5000>|[s]\n\t =a  == b = c ;d\n -> <b = c ;d>|[s]\na=\t\n -> <\t>|"
              "[s]\na=1\r\n -> <1\r>|[s]\na\na=\na \na=1\n -> <1>|[s]\na =\na=1\n -> <>|[s]\na=%\n -> <%>|"
              "[s]\na=%a=more\n -> <%>|[s]\nb=%a=2\n -> <2>|[s]\nb=%#a=2\n -> |#=%[s]\na=2\n -> <2>",
              pattern(1020))) {
        write("config/t.ini", text);
        const char* value = read_ini_file("t.ini", "[s]", "a");
        EXPECT_EQ(value != nullptr ? "<" + std::string(value) + ">" : "", expected) << text;
    }
    EXPECT_EQ(read_ini_file("missing.ini", "[s]", "a"), nullptr);
}

TEST_F(Util, OverlappingIniReadsDoNotMix) {
    const std::string values[] = {std::string(1000, 'a'), std::string(1000, 'b'), std::string(1000, 'c')};
    write("config/t.ini", "[s]\n0=" + values[0] + "\n1=" + values[1] + "\n2=" + values[2] + "\n");
    std::atomic<int> right{0};
    in_threads(3, [&](int key) {
        for (int i = 0; i < 300; ++i)
            right += read_ini_file("t.ini", "[s]", std::to_string(key).c_str()) == values[key] ? 1 : 0;
    });
    EXPECT_EQ(right, 900);
}

TEST_F(Util, NumbersNewlinesAndFirstLines) {
    for (const auto& [text, value] : rows("12 -> 12| \t-5x -> -5|+7 -> 7| -> 0|x1 -> 0|1e3 -> 1|- 1 -> 0|007 -> 7|"
                                          "2147483648 -> 2147483647|-99999999999999999999 -> -2147483648"))
        EXPECT_EQ(std::to_string(decimal_value(text.c_str())), value) << text;
    for (const auto& [before, after] : rows(" -> |\n -> |a -> a|a\n -> a|a\n\n -> a\n|a\r\n -> a\r|\na -> \na")) {
        char text[8];
        copy_text(text, before);
        chomp(text);
        EXPECT_EQ(text, after);
    }
    for (const auto& [content, expected] :
         rows("ab\nc -> 0ab|ab -> 0ab|\na -> 0|1234567\n -> 01234567|12345678 -> 01234567| -> -1old")) {
        char buf[9] = "old\0\0\0\0#";
        write("data/f", content);
        const int result = read_one_line_from_file(path("data/f").c_str(), buf, 8);
        EXPECT_EQ(std::to_string(result) + buf, expected) << content;
    }
    EXPECT_EQ(read_one_line_from_file(path("data/missing").c_str(), nullptr, 8), -1);
}

TEST_F(Util, OnlyRegularFilesAreOpened) {
    shell("ln -s /dev/zero zero; ln -s out link; mkfifo fifo read-fifo");
    const unique_fd reader(open(path("read-fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const struct {
        const char* name;
        int flags, error;
    } cases[] = {
        {"out", O_RDONLY, 0},       {"link", O_WRONLY | O_TRUNC, 0}, {"new", O_WRONLY | O_CREAT, 0},
        {"none", O_RDONLY, ENOENT}, {"fifo", O_RDONLY, ENXIO},       {"fifo", O_WRONLY | O_CREAT, ENXIO},
        {"zero", O_RDONLY, ENXIO},  {"read-fifo", O_WRONLY, ENXIO},  {"log", O_RDONLY, EISDIR},
    };
    for (const auto& c : cases) {
        errno = 0;
        const unique_fd file = open_regular(path(c.name).c_str(), c.flags, 0600);
        EXPECT_EQ(errno, c.error) << c.name << " " << c.flags;
        EXPECT_EQ(!file, c.error != 0) << c.name << " " << c.flags;
    }
    EXPECT_EQ(open_regular_for_reading(path("fifo").c_str()), nullptr);
}

TEST_F(Util, PidFile) {
    write("old.pid", std::string(100, '9'));
    write_pidfile(path("old.pid").c_str());
    EXPECT_EQ(read("old.pid"), std::to_string(getpid()));
    EXPECT_EQ(write_pidfile(path("log").c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(Util, IsoTextOfAZone) {
    for (const auto& [given, text] :
         rows("UTC0 0 -> 1970-01-01T00:00:00+00:00|XST-9 1360219512 -> 2013-02-07T15:45:12+09:00|"
              "XST-5:45 1360219512 -> 2013-02-07T12:30:12+05:45|XST3:30 0 -> 1969-12-31T20:30:00-03:30|"
              "XST0:30 1800 -> 1970-01-01T00:00:00-00:30|XST9:30 253402300799 -> 9999-12-31T14:29:59-09:30|"
              "XST-14 253402300799 -> 10000-01-01T13:59:59+14:00")) {
        set_zone(given.substr(0, given.find(' ')).c_str());
        EXPECT_EQ(iso_text(std::stol(given.substr(given.find(' ')))), text);
    }
}

TEST_F(Util, IsoTextIsReadAsIsWhateverTheZone) {
    set_zone("EST5EDT");
    for (const auto& [text, when] :
         rows("1970-01-01T00:00:00Z -> 0|1970-01-01T09:00:00+09:00 -> 0|1969-12-31T20:30:00-03:30 -> 0|"
              "1969-12-31T20:30:00x03:30 -> 0|1969-12-31T23:59:58Z -> -2|1970-1-1T0:0:5Z -> 5|"
              "1970-01-32T00:00:00Z -> 2678400|1970-13-01T24:00:60Z -> 31622460|2013-02-07 -> -1|"
              "1970-01-01T00:00:07Z tail -> 7|1970-01-01T00:00:00 -> -1|1970-01-01 00:00:00Z -> -1|"
              "1970-01-01T00:00:00z -> -1|1970-01-01T00:00:00+09 -> -1|x1970-01-01T00:00:00Z -> -1"))
        EXPECT_EQ(std::to_string(iso2date(text.c_str())), when) << text;
}

TEST_F(Util, OffsetOnBothSidesOfANewYear) {
    for (int i = 0; i < 300; ++i) {  // every half hour around the starts of 2013 and 2014
        for (const int east : {-720, -570, -210, -30, 0, 30, 345, 540, 840}) {
            const std::time_t when = (i % 2 == 0 ? 1356998400 : 1388534400) + (i / 2 - 75) * 1800;
            const std::time_t shifted = when + std::time_t{east} * 60;
            std::tm utc{}, local{};
            gmtime_r(&when, &utc);
            gmtime_r(&shifted, &local);
            ASSERT_EQ(timezone_offset(utc, local), -east) << when;
        }
    }
}

// A wall clock time in milliseconds.
constexpr std::int64_t at(int hour, int minute, int second) {
    return ((hour * 60 + minute) * 60 + second) * std::int64_t{1000};
}

TEST_F(Util, MinutesThatTheClockShowedDuringASleep) {
    const struct {
        const char* name;
        past_sleep sleep;
        std::int64_t shown;
    } sleeps[] = {
        {"as planned", {at(9, 5, 15), at(9, 6, 0), 45'000}, at(9, 6, 0)},
        {"from a full minute to the next", {at(9, 5, 0), at(9, 6, 0), 60'000}, at(9, 6, 0)},
        {"woken late", {at(9, 5, 59), at(9, 6, 20), 21'000}, at(9, 6, 0)},
        {"slewed, a little early", {at(9, 5, 15), at(9, 6, 0) - 20, 45'000}, -1},
        {"set forward", {at(9, 5, 15), at(11, 6, 3), 45'000}, at(11, 6, 0)},
        {"set back by an hour, less three seconds", {at(9, 5, 15), at(8, 6, 3), 45'000}, at(8, 6, 0)},
        {"set back, a minute came early in the sleep", {at(9, 5, 15), at(8, 6, 40), 45'000}, at(8, 6, 0)},
        {"set back, no minute came", {at(9, 5, 15), at(8, 5, 50), 45'000}, -1},
        {"set back over the start of its minute", {at(9, 5, 15), at(9, 5, 13), 45'000}, at(9, 5, 0)},
    };
    for (const auto& [name, sleep, shown] : sleeps) EXPECT_EQ(multiple_shown(sleep, 60'000), shown) << name;
}

TEST_F(Util, SleepsEndOncePerIntervalAndNotBeforeItsEnd) {
    for (const std::time_t interval : {1, 2}) {
        interval_sleep sleep(interval);
        std::time_t before = now_seconds();
        for (int i = 0; i < 2; ++i) {
            const std::time_t woken = sleep.next();
            EXPECT_GT(woken / interval, before / interval);
            EXPECT_LE(woken, now_seconds());
            EXPECT_LE(woken - before, interval + 5);
            before = woken;
        }
    }
}

}  // namespace unit
