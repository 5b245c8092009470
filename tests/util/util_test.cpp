#include "internal/debug_command.h"
#include "state/mark_question.h"
#include "timer/job_table.h"
#include "timer/timer_loop.h"
#include "unit_support.h"
#include "util/fair_mutex.h"
#include "util/ini_file.h"
#include "util/interval_sleep.h"
#include "util/line.h"
#include "util/regular_file.h"

#include <atomic>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/times.h>

static std::atomic<bool> holds_reports{false};
static std::atomic<bool> is_report_held{false};

// Takes the place of the system's call, which a report makes under its lock, so that it can be held there.
extern "C" std::clock_t times(tms*) noexcept {
    is_report_held = holds_reports.load();
    while (holds_reports) usleep(1'000);
    is_report_held = false;
    return static_cast<std::clock_t>(monotonic_ms() / 10);
}

namespace unit {

struct Util : Scratch {
    static std::string iso_text(std::time_t when) {
        char text[iso_size];
        const int length = date2iso8601(when, text);
        return {text, static_cast<std::size_t>(length)};
    }
};

TEST_F(Util, IniReadsOfSeveralThreadsDoNotMix) {
    const std::string values[] = {std::string(1000, 'a'), std::string(1000, 'b'), std::string(1000, 'c')};
    write("config/t.ini", "[s]\n0=" + values[0] + "\n1=" + values[1] + "\n2=" + values[2] + "\n");
    std::atomic<int> correct{0};
    in_threads(3, [&](int key) {
        for (int i = 0; i < 300; ++i)
            correct += read_ini_file("t.ini", "[s]", std::to_string(key).c_str()) == values[key] ? 1 : 0;
    });
    EXPECT_EQ(correct, 900);
}

TEST_F(Util, FirstLineIsCutToTheBuffer) {
    const struct {
        const char* name;
        const char* content;
        int result;
        const char* line;
    } cases[] = {
        {"first of two lines", "ab\nc", 0, "ab"},
        {"no newline", "ab", 0, "ab"},
        {"empty line", "\na", 0, ""},
        {"exact size", "1234567\n", 0, "1234567"},
        {"one character too long", "12345678\n", 0, "1234567"},
        {"empty file", "", -1, "old"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char buf[] = "old\0\0\0\0#";
        write("data/f", c.content);
        EXPECT_EQ(read_one_line_from_file(path("data/f").c_str(), buf, 8), c.result);
        EXPECT_STREQ(buf, c.line);
    }
    EXPECT_EQ(read_one_line_from_file(path("data/missing").c_str(), nullptr, 8), -1);
    char empty[] = "\n";
    chomp(empty + 1);  // an empty text: the byte before it is not touched
    EXPECT_STREQ(empty, "\n");
}

TEST_F(Util, OnlyRegularFilesAreOpenedAndNothingBlocks) {
    shell("ln -s /dev/zero zero; ln -s /dev/null null; ln -s out link; mkfifo fifo read-fifo");
    const unique_fd reader(open(path("read-fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const struct {
        const char* name;
        const char* file;
        int flags, error;
    } cases[] = {
        {"regular file", "out", O_RDONLY, 0},
        {"link to a regular file", "link", O_WRONLY | O_TRUNC, 0},
        {"new file", "new", O_WRONLY | O_CREAT, 0},
        {"missing file", "none", O_RDONLY, ENOENT},
        {"FIFO, read", "fifo", O_RDONLY, ENXIO},
        {"FIFO, written", "fifo", O_WRONLY | O_CREAT, ENXIO},
        {"FIFO with a reader, written", "read-fifo", O_WRONLY, ENXIO},
        {"link to a device", "zero", O_RDONLY, ENXIO},
        {"null device, read", "null", O_RDONLY, 0},
        {"null device, written", "null", O_WRONLY | O_CREAT, ENXIO},
        {"directory", "log", O_RDONLY, EISDIR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        errno = 0;
        const unique_fd file = open_regular(path(c.file).c_str(), c.flags, 0600);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(!file, c.error != 0);
    }
    EXPECT_EQ(open_regular_for_reading(path("fifo").c_str()), nullptr);
}

TEST_F(Util, IsoTextHasTheOffsetOfTheZone) {
    const struct {
        const char* zone;
        std::time_t when;
        const char* text;
    } cases[] = {
        {"UTC0", 0, "1970-01-01T00:00:00+00:00"},
        {"XST-5:45", 1360219512, "2013-02-07T12:30:12+05:45"},
        {"XST0:30", 1800, "1970-01-01T00:00:00-00:30"},
        {"XST9:30", 253402300799, "9999-12-31T14:29:59-09:30"},
        {"XST-14", 253402300799, "10000-01-01T13:59:59+14:00"},
    };
    for (const auto& c : cases) {
        set_zone(c.zone);
        EXPECT_EQ(iso_text(c.when), c.text) << c.zone << " " << c.when;
    }
    set_zone("EST5EDT");
    const std::time_t now = now_seconds();  // its offset is that of all dates
    const std::string offset = std::localtime(&now)->tm_isdst > 0 ? "-04:00" : "-05:00";
    EXPECT_EQ(iso_text(1360219512), "2013-02-07T01:45:12" + offset);
    EXPECT_EQ(iso_text(1372637712), "2013-06-30T20:15:12" + offset);
    const std::tm day{};
    EXPECT_STRNE(time2string(&day), "");
    EXPECT_STREQ(time2string(nullptr), "");  // a time that could not be converted
}

TEST_F(Util, IsoTextIsReadTheSameInEveryZone) {
    set_zone("EST5EDT");
    const Row<const char*, std::time_t> cases[] = {
        {"UTC", "1970-01-01T00:00:00Z", 0},
        {"offset east", "1970-01-01T09:00:00+09:00", 0},
        {"offset west", "1969-12-31T20:30:00-03:30", 0},
        {"any other sign counts as west", "1969-12-31T20:30:00x03:30", 0},
        {"before 1970", "1969-12-31T23:59:58Z", -2},
        {"one digit", "1970-1-1T0:0:5Z", 5},
        {"day 32", "1970-01-32T00:00:00Z", 2678400},
        {"month 13, hour 24, second 60", "1970-13-01T24:00:60Z", 31622460},
        {"text after it", "1970-01-01T00:00:07Z tail", 7},
        {"only a date", "2013-02-07", -1},
        {"no zone", "1970-01-01T00:00:00", -1},
        {"blank for the T", "1970-01-01 00:00:00Z", -1},
        {"small z", "1970-01-01T00:00:00z", -1},
        {"offset without minutes", "1970-01-01T00:00:00+09", -1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        EXPECT_EQ(iso2date(row.given), row.wanted);
    }
}

TEST_F(Util, ZoneOffsetIsRightWhenLocalTimeAndUtcAreInDifferentYears) {
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

TEST_F(Util, FullMinuteDuringASleepIsFoundWhateverTheClockDoes) {
    const struct {
        const char* name;
        past_sleep sleep;
        std::int64_t shown;
    } sleeps[] = {
        {"as planned", {at(9, 5, 15), at(9, 6, 0), 45'000}, at(9, 6, 0)},
        {"from a full minute to the next", {at(9, 5, 0), at(9, 6, 0), 60'000}, at(9, 6, 0)},
        {"woken late", {at(9, 5, 59), at(9, 6, 20), 21'000}, at(9, 6, 0)},
        {"slewed, a little early", {at(9, 5, 15), at(9, 6, 0) - 20, 45'000}, -1},
        {"slewed by a second, from a full minute", {at(9, 5, 0), at(9, 5, 59), 60'000}, -1},
        {"set back by a little more", {at(9, 5, 0), at(9, 5, 59) - 1, 60'000}, at(9, 5, 0)},
        {"set forward", {at(9, 5, 15), at(11, 6, 3), 45'000}, at(11, 6, 0)},
        {"set back by an hour, less three seconds", {at(9, 5, 15), at(8, 6, 3), 45'000}, at(8, 6, 0)},
        {"set back, a minute came early in the sleep", {at(9, 5, 15), at(8, 6, 40), 45'000}, at(8, 6, 0)},
        {"set back, no minute came", {at(9, 5, 15), at(8, 5, 50), 45'000}, -1},
        {"set back over the start of its minute", {at(9, 5, 15), at(9, 5, 13), 45'000}, at(9, 5, 0)},
    };
    for (const auto& [name, sleep, shown] : sleeps) EXPECT_EQ(multiple_shown(sleep, 60'000), shown) << name;
}

TEST_F(Util, FairMutexServesItsWaitersInTheirOrder) {
    fair_mutex mutex;
    mutex.lock();
    std::string order;
    std::vector<std::thread> waiters;
    std::atomic<pid_t> waiting{0};
    std::atomic<int> served{0};
    for (const char name : {'a', 'b', 'c'}) {
        waiting = 0;
        waiters.emplace_back([&, name] {
            waiting = gettid();
            mutex.lock();
            order += name;
            mutex.unlock();
            ++served;
        });
        await("a waiter", [&] {  // asleep, and not for a lock of the test
            const std::string place = "/proc/self/task/" + std::to_string(waiting) + "/syscall";
            std::ifstream file(place);
            std::string call;
            return waiting != 0 && file >> call && call == std::to_string(SYS_futex);
        });
    }
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    await("every waiter", [&] { return served == 3; });
    if (HasFailure()) std::_Exit(1);  // a waiter that never gets the lock cannot be joined
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(order, "abc");
    EXPECT_TRUE(mutex.try_lock());
}

TEST_F(Util, ClearThatMeetsAReportWaitsForItAndKeepsTheMark) {
    status_mark mark{};
    mark_question question(mark, answer_effect::success_clears);
    question.begin();
    holds_reports = true;
    std::thread report([&] { set_and_stamp(mark); });
    await("the report", [] { return is_report_held.load(); });
    std::thread clear([&] { question.answered(0); });
    usleep(50'000);  // by then the clear waits
    holds_reports = false;
    report.join();
    clear.join();
    EXPECT_FALSE(question.has_cleared());
    EXPECT_EQ(mark.set, 1);
}

TEST_F(Util, ReloadOfTheJobsDuringTheStartStoresWhatItHasRead) {
    write("pipe", "");
    write("config/timer_jobs", "* * * * * patrol\n");
    timer_read_jobs();
    trace();
    write("config/timer_jobs", "# none\n");
    holds_reports = true;
    std::thread start([] { mark_if_on_timer(st->patrol, "patrol"); });
    await("the start", [] { return is_report_held.load(); });
    std::thread reload([] {
        timer_state state{now_seconds(), {}};
        timer_pass(state, now_seconds());
    });
    await_trace("Info:timer_jobs mtime=");
    usleep(50'000);  // by then it waits, or has stored its result too early
    holds_reports = false;
    start.join();
    reload.join();
    EXPECT_EQ(st->patrol.set, 0);
}

}  // namespace unit
