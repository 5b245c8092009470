// schedcheck: it finds each line that the daemon would drop or misread, and no other line.
#include "check/job_runs.h"
#include "e2e/harness.h"
#include "timer/job_field.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

using namespace e2e;

namespace {

Outcome schedcheck(const Suite& suite, const std::string& arguments, const std::string& variables = "") {
    return suite.command("env -u VGD_config TZ=UTC VGD_bin=" + suite.path("bin") + " " + variables +
                         " " SCHEDCHECK_BINARY " " + arguments);
}

// Replaces the names of characters in a text of lines.txt by the characters. In a finding only {9*x} is replaced,
// because schedcheck itself prints \t, \r and \xNN.
std::string plain(std::string text, bool is_finding) {
    static const std::regex name(R"(\\([tr])|\\x(..)|\{(\d+)\*(.)\})");
    std::string result;
    for (std::smatch found; std::regex_search(text, found, name); text = found.suffix()) {
        result += found.prefix();
        if (is_finding && !found[3].matched)
            result += found[0];
        else if (found[1].matched)
            result += found[1] == "t" ? '\t' : '\r';
        else if (found[2].matched)
            result += static_cast<char>(std::stoi(found[2], nullptr, 16));
        else
            result += std::string(std::stoul(found[3]), found[4].str()[0]);
    }
    return result + text;
}

TEST(Check, NamesEachBadLineAndNoGoodOne) {
    std::ostringstream file;
    file << std::ifstream(SCHED_SOURCES "/tests/check/lines.txt").rdbuf();
    const std::string all = file.str();
    for (std::size_t at = 0, next = all.find("\n== "); (at = next) != std::string::npos;) {
        next = all.find("\n== ", at + 1);
        std::istringstream section(all.substr(at + 4, next - at - 4));
        std::string name, text, wanted;
        section >> name;
        Suite suite;
        for (const char* empty : {"bin/plain", "config/timer_jobs"}) suite.write(empty, "");
        for (std::string row; std::getline(section, row);) {
            if (row.starts_with("line ")) text += plain(row.substr(5), false) + "\n";
            if (!row.starts_with("    ")) continue;
            std::string finding = plain(row.substr(4), true);
            if (const std::size_t mark = finding.find('@'); mark != std::string::npos)
                finding.replace(mark, 1, suite.path("bin"));
            const std::string line = std::to_string(std::count(text.begin(), text.end(), '\n'));
            wanted += suite.path(name) + ":" + (finding.starts_with("1: ") ? "" : line + ": ") + finding + "\n";
        }
        suite.write(name, text);
        const Outcome got = schedcheck(suite, "--config " + suite.path("config"));
        EXPECT_EQ(got.out, wanted);
        EXPECT_EQ(got.err, "");
        EXPECT_EQ(got.code, wanted.empty() ? 0 : 1);
    }
}

TEST(Check, NamesLinesThatDoNotFitInATableAndWordsThatAreMissing) {
    Suite suite;
    suite.write("config/timer_jobs", repeated(31, "0 3 * * * m\n"));
    std::string list = "m parts - 0\n";
    for (std::size_t i = 1; i <= 100; i++) list += "m" + std::string(i, 'm') + " parts - 0\n";
    suite.write("config/vgd_modules", list);
    EXPECT_EQ(  // prognosis is called on some platforms only
        schedcheck(suite, "--config " + suite.path("config"), "VGD_PLATFORM=KT").out,
        suite.path("config/vgd_modules:101: dropped: the list holds at most 100 entries\n") +
            suite.path("config/vgd_modules:1: no entry for what the scheduler itself calls: allmodcall parts prognosis "
                       "diag devconf confchg analysis qmx ehello\n") +
            suite.path("config/timer_jobs:31: dropped: the table holds at most 30 jobs\n"));
}

TEST(Check, ShippedConfigurationIsCleanAndItsNextRunsArePrinted) {
    Suite suite;
    const Outcome clean =
        schedcheck(suite, "--next 2 --config " SCHED_SOURCES "/config", "VGD_bin=" SCHED_SOURCES "/modules");
    EXPECT_EQ(clean.code, 0);
    EXPECT_EQ(clean.err, "");
    const std::string run = "[^\n]*/timer_jobs:[0-9]+: runs at ";
    EXPECT_THAT(clean.out, MatchesRegex("(" + run + "[-0-9]+T[0-9]+:[0-9]0:00\\+0000: patrol check\n){2}(" + run +
                                        "[-0-9]+T03:30:00\\+0000: diag check\n){2}(" + run +
                                        "[-0-9]+T04:00:00\\+0000: devconf check\n){2}"));
}

TEST(Check, NextRunsCannotCommandTheTerminal) {
    Suite suite;
    suite.write("config/timer_jobs", "0 3 * * * true\t\x1b[2J\n");
    EXPECT_THAT(schedcheck(suite, "--next 1 --config " + suite.path("config")).out, EndsWith(": true \\x1b[2J\n"));
}

TEST(Check, UnreadableFilesAndWrongUseEndWithAMessage) {
    Suite suite;
    mkdir(suite.path("empty").c_str(), 0700);
    suite.write("list", "");
    mkdir(suite.path("config/pvo.ini").c_str(), 0700);
    mkdir(suite.path("link").c_str(), 0700);
    EXPECT_EQ(symlink("pvo.ini", suite.path("link/pvo.ini").c_str()), 0);
    const std::string lists = "VGD_modules_path=" + suite.path("list") + " VGD_timer_jobs_path=" + suite.path("list");
    const struct {
        const char* name;
        std::string arguments;
        std::string variables;
        int code;
        std::string error;
    } cases[] = {
        {"no directory named", "", "", 2, "--config"},
        {"no such directory", "--config " + suite.path("none"), "", 2, "none: No such file"},
        {"no lists", "--config " + suite.path("empty"), "", 2, "vgd_modules: No such file"},
        {"a directory in place of a file", "--config " + suite.path("config"), "", 2, "pvo.ini: not a regular file"},
        {"a file that cannot be reached", "--config " + suite.path("link"), lists, 2, "pvo.ini: Too many levels"},
        {"files by their variables, most runs", "--next 1000 --config " + suite.path("empty"), lists, 1, ""},
        {"no directories of programs and password", "--config " + suite.path("empty"), lists + " VGD_bin= VGD_data=", 1,
         "schedcheck: VGD_bin is not set; the programs are not checked\n"
         "schedcheck: VGD_data is not set; the password file is not checked\n"},
        {"a directory from the environment", "", "VGD_config=" + suite.path("none"), 2, "none: No such file"},
        {"no run", "--next 0", "VGD_config=" + suite.path("config"), 2, "schedcheck: --next"},
        {"too many runs", "--next 1001", "VGD_config=" + suite.path("config"), 2, "schedcheck: --next"},
        {"not a number", "--next x", "VGD_config=" + suite.path("config"), 2, "schedcheck: --next"},
    };
    for (const auto& c : cases) {
        const Outcome got = schedcheck(suite, c.arguments, c.variables);
        EXPECT_EQ(got.code, c.code) << c.name;
        EXPECT_THAT(got.err, HasSubstr(c.error)) << c.name;
    }
    EXPECT_EQ(schedcheck(suite, "--version").out, "schedcheck " SCHED_VERSION "\n");
    suite.write("list", "a finding\n");
    EXPECT_EQ(
        shell(lists + " " SCHEDCHECK_BINARY " --config " + suite.path("empty") + " 2>/dev/null >/dev/full; echo $?"),
        "2\n");
}

// A job does not run in local minutes that daylight saving time skips, and runs twice in those that it repeats.
TEST(Check, NextRunsSkipAndRepeatMinutesWithDaylightSavingTime) {
    constexpr const char* berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct {
        const char* name;
        const char* zone;
        const char* fields[5];  // minute, hour, day of the month, month, day of the week
        std::time_t from;
        std::vector<std::time_t> runs;
    } cases[] = {
        {"not in the minute that has begun", "UTC", {"0", "0", "", "*", "*"}, 86400, {172800, 259200}},
        {"the next hour's first minutes", "UTC", {"5", "3", "", "*", "*"}, 95400, {97500, 183900}},
        {"leap days, over a century without one",
         "UTC",
         {"5", "0", "29", "2", ""},
         3981312299,
         {3981312300, 4233686700}},
        {"spring", berlin, {"30", "2", "", "*", "*"}, 1774695600, {1774830600, 1774917000}},
        {"autumn", berlin, {"30", "2", "", "*", "*"}, 1792836000, {1792888200, 1792891800}},
        {"never", "UTC", {"0", "0", "31", "2,4", ""}, 0, {}},
    };
    alarm(60);  // ends the test when a search does not end
    for (const auto& c : cases) {
        setenv("TZ", c.zone, 1);
        tzset();
        job_record job{};
        set_job_field(c.fields[0], job.minute, minute_slots);
        set_job_field(c.fields[1], job.hour, hour_slots);
        set_job_field(c.fields[2], job.mday, mday_slots);
        set_job_field(c.fields[3], job.month, month_slots);
        set_job_field(c.fields[4], job.wday, wday_slots);
        EXPECT_EQ(check::next_runs(job, c.from, 2), c.runs) << c.name;
    }
    alarm(0);
}

}  // namespace
