// schedcheck: it finds each line that the daemon would drop or misread, and no other line.
#include "check/job_runs.h"
#include "e2e/harness.h"
#include "timer/job_field.h"

#include <cstdlib>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace e2e;

namespace {

struct result {
    int code;
    std::string out;
    std::string err;
};

result schedcheck(const Suite& suite, const std::string& arguments, const std::string& variables = "") {
    const std::string command = "env -u VGD_config TZ=UTC VGD_bin=" + suite.path("bin") +
                                " VGD_data=" + suite.path("data") + " " + variables + " " SCHEDCHECK_BINARY " " +
                                arguments + " >" + suite.path("o") + " 2>" + suite.path("e");
    const int status = std::system(command.c_str());
    return {WEXITSTATUS(status), suite.read("o"), suite.read("e")};
}

constexpr const char* hash = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

// The lines are added to their files in this order; a line without findings prepares the next one.
const struct {
    std::string file;
    std::string line;
    strings findings;
} judged_lines[] = {
    {"sched.conf", "port_no = 1", {R"("port_no = 1" stands before any section and is not read)"}},
    {"sched.conf", "[shced]", {R"(unknown section "[shced]"; the nearest known one is "[sched]")"}},
    {"sched.conf", "port_no = 1", {R"("port_no = 1" is in the section "[shced]", which is not read)"}},
    {"sched.conf", "[sched]", {}},
    {"sched.conf", "prot_no\t= 9", {R"(unknown key "prot_no"; the nearest known one is "port_no")"}},
    {"sched.conf", "port_no = 99x", {R"(port_no: "99x" is not a number; it is read as 99)"}},
    {"sched.conf", "port_no = 9980", {R"("port_no" is not read: line 6 sets it already)"}},
    {"sched.conf", "analysis_interval=", {R"("analysis_interval" has no value; the line is skipped)"}},
    {"sched.conf", "analysis_interval = 0", {R"(analysis_interval: "0" is out of range (1 to 2147483647))"}},
    {"sched.conf", "udp_dest_port = 70000", {R"(udp_dest_port: "70000" is out of range (1 to 65535))"}},
    {"sched.conf", "udp_dest_addr = loghost", {R"(udp_dest_addr: "loghost" is not an IPv4 address)"}},
    {"sched.conf", "qmxut_port = +65535 ", {}},
    {"sched.conf",
     "syslog_poll_interval = 2147483648",
     {R"(syslog_poll_interval: "2147483648" is out of range (1 to 2147483647))"}},
    {"sched.conf", " \t\r", {}},
    {"sched.conf", ";port_no = 0", {}},
    {"sched.conf", " # note", {"a comment begins in the first column; this line is read as a setting"}},
    {"sched.conf", " ;note", {"a comment begins in the first column; this line is read as a setting"}},
    {"sched.conf",
     std::string(100, 'k') + " = 1",
     {"unknown key \"" + std::string(100, 'k') + R"("; the nearest known one is "port_no")"}},
    {"sched.conf",
     std::string(101, 'k') + " = 1",
     {"unknown key \"" + std::string(100, 'k') + R"(..."; the nearest known one is "port_no")"}},
    {"sched.conf",
     "\x7f\0 = 1"s,
     {"a NUL character: what follows it is not read", R"(unknown key "\x7f"; the nearest known one is "port_no")"}},
    {"sched.conf",
     "allowed_ip_address = 10.0.0.1",
     {R"("allowed_ip_address" is not read from here; it belongs in common.ini)"}},
    {"sched.conf",
     "#" + std::string(1021, '-') + "x = 1",
     {"longer than 1022 characters: the rest is read as a further line",
      R"(unknown key "x"; the nearest known one is "port_no")"}},
    {"sched.conf", "#" + std::string(1021, '-'), {}},
    {"sched.conf",
     "#" + std::string(1021, '-') + "#",
     {"longer than 1022 characters: the rest is read as a further line"}},
    {"sched.conf", "\033[31m", {R"(unknown key "\x1b[31m"; the nearest known one is "port_no")"}},
    {"common.ini", "[sched]\r", {R"(unknown section "[sched]\r"; the nearest known one is "[sched]")"}},
    {"common.ini", "[sched]", {}},
    {"common.ini",
     "bound_ip_address = 127.0.0.1                      ",
     {"bound_ip_address: \"127.0.0.1                      \" is cut to 30 characters"}},
    {"common.ini",
     "allowed_ip_address = 10.0.0.0/33, /24 10.1 0.0.0.0",
     {R"(allowed_ip_address: prefix length "33" is out of range (1 to 32); only the one address is let in; )"
      R"("/24" has no address and is skipped; "10.1" is not an IPv4 address; )"
      R"("0.0.0.0" lets nobody in; it uses up an entry)"}},
    {"common.ini",
     "allowed_ip_address = 1.1.1.1/32\t2.2.2.2/1 3.3.3.3,4.4.4.4 5.5.5.5 6.6.6.6 7.7.7.7 8.8.8.8 9.9.9.9 10.1.1.1 "
     "11.1.1.1",
     {R"("allowed_ip_address" is not read: line 4 sets it already)",
      R"(allowed_ip_address: "11.1.1.1" is ignored: at most 10 are kept)"}},
    {"common.ini",
     "allowed_ip_address = 10.0.0.0/0 , ,",
     {R"("allowed_ip_address" is not read: line 4 sets it already)",
      R"(allowed_ip_address: prefix length "0" is out of range (1 to 32); only the one address is let in)"}},
    {"common.ini",
     "allowed_ip_address = ,",
     {R"("allowed_ip_address" is not read: line 4 sets it already)",
      "allowed_ip_address: an empty list lets everyone in"}},
    {"common.ini",
     "bound_ip_address = 127.0.0.1                  \t \r",
     {R"("bound_ip_address" is not read: line 3 sets it already)"}},
    {"pvo.ini", "[section 100]", {R"(unknown section "[section 100]"; the nearest known one is "[section 10]")"}},
    {"pvo.ini", "[section 99]", {}},
    {"pvo.ini", "active = Yes", {R"(active: "Yes" is neither "yes" nor "no"; it is taken as no)"}},
    {"pvo.ini", "address = \t \r", {"address: the value is empty"}},
    {"pvo.ini", "port = 65535", {}},
    {"pvo.ini", "[section 0]", {}},
    {"pvo.ini", "active = no", {}},
    {"pvo.ini", "port = 65536", {R"(port: "65536" is out of range (1 to 65535))"}},
    {"pvo.ini", "[section 1]", {}},
    {"pvo.ini", "active = yes", {}},
    {"pvo.ini", "port = 0", {R"(port: "0" is out of range (1 to 65535))"}},
    {"pvo.ini", "active = no", {R"("active" is not read: line 10 sets it already)"}},
    {"vgd_modules", "parts parts yes 30", {}},
    {"vgd_modules", "Parts parts yes 30", {"skipped: an entry begins with a letter from a to z in the first column"}},
    {"vgd_modules", "diag diag yes", {"dropped: not a word, a program, a display field and a time-out in seconds"}},
    {"vgd_modules",
     "parts diag yes 30s\t# slow",
     {R"("parts" is never found: line 1 lists it already)", R"(time-out "30s" is read as 30)",
      R"(ignored after the time-out: "\t# slow")"}},
    {"vgd_modules",
     "gone gone - -1",
     {R"(time-out "-1" is out of range (0 to 2147483647))", R"(program "@/gone" does not exist)"}},
    {"vgd_modules", "plain plain - 0", {R"(program "@/plain" is not executable)"}},
    {"vgd_modules", "folder . - 2147483647 \r", {R"(program "@/." is not a regular file)"}},
    {"vgd_modules",
     "inside plain/x - 2147483648",
     {R"(time-out "2147483648" is out of range (0 to 2147483647))", R"(program "@/plain/x" Not a directory)"}},
    {"vgd_modules",
     "parts parts yes 99999999999999999999",
     {R"("parts" is never found: line 1 lists it already)",
      R"(time-out "99999999999999999999" is out of range (0 to 2147483647))"}},
    {"vgd_modules", "lock - - 0\r", {}},
    {"vgd_modules",
     "lcok - - 0",
     {R"("lcok" is no command that the scheduler answers itself)",
      "1: no entry for what the scheduler itself calls: allmodcall diag devconf confchg analysis qmx ehello"}},
    {"timer_jobs", "", {"an empty line is taken for a job that lacks its fields; begin it with #"}},
    {"timer_jobs", "0 3 *\t* * parts", {"dropped: a field is missing, or a tab stands between two of the time fields"}},
    {"timer_jobs", "0 3 31 2 * parts", {"the job never runs"}},
    {"timer_jobs",
     "62,5/2,x,,3-1,*/0 24 0 13 7 parts",
     {R"(minute "62": 62 is out of range (0 to 59))", R"(minute "5/2": the step after a single value is ignored)",
      R"(minute "x": not a number, a range or *; it is read as 0)", R"(minute "": an empty item is skipped)",
      R"(minute "3-1": the range is empty)", R"(minute "*/0": a step of 0 ends the field)",
      R"(hour "24": 24 is out of range (0 to 23))", R"(day of the month "0": 0 is out of range (1 to 31))",
      R"(month "13": 13 is out of range (1 to 12))", R"(day of the week "7": 7 is out of range (0 to 6))",
      "the job never runs"}},
    {"timer_jobs", "5-5 3 * * * parts", {}},
    {"timer_jobs", "59,1-9/4 23,*/7 31,1 12 6 parts", {}},
    {"timer_jobs", "0-70 0 1 1 0 parts", {R"(minute "0-70": 70 is out of range (0 to 59))", "the job never runs"}},
    {"timer_jobs", "0 3 * * * parts" + repeated(14, "\tx"), {}},
    {"timer_jobs", "0 3 * * * parts\t" + std::string(293, 'x'), {}},
    {"timer_jobs",
     "0 3 * * * parts ",
     {"the blank or control character at the end belongs to the command",
      R"("parts " is not a module: the words of a command are separated by one tab each)"}},
    {"timer_jobs",
     "0 3 * * * parts\r",
     {"the blank or control character at the end belongs to the command",
      R"("parts\r" is not a module: the words of a command are separated by one tab each)"}},
    {"timer_jobs",
     "0 3 * * * parts\t",
     {"the blank or control character at the end belongs to the command",
      "the command has an empty word: two tabs stand together, or one at its end"}},
    {"timer_jobs",
     " 0 3 * * * parts",
     {"the blank at the start makes the minute empty and moves every field by one", "the job never runs",
      R"("* parts" is not a module; the nearest is "parts")"}},
    {"timer_jobs",
     "0 3 * * * parts status",
     {R"("parts status" is not a module: the words of a command are separated by one tab each)"}},
    {"timer_jobs",
     "0 3 * * mon parts",
     {R"(day of the week "mon": not a number, a range or *; it is read as 0, which is Sunday)"}},
    {"timer_jobs",
     "0 3 * * * parts\t\tstatus",
     {"the command has an empty word: two tabs stand together, or one at its end"}},
    {"timer_jobs", "0 3 * * * lock", {R"("lock" is answered by the scheduler itself; a job cannot run it)"}},
    {"timer_jobs", "0 3 * * * part\ts", {R"("part" is not a module; the nearest is "parts")"}},
    {"timer_jobs", "0 3 * * * parts\tstatus\r", {"the blank or control character at the end belongs to the command"}},
    {"timer_jobs", "0 3 * * * parts" + repeated(15, "\tx"), {"the command has more than 15 words"}},
    {"timer_jobs", "0 3 * * * parts\t" + std::string(294, 'x'), {"the command is cut to 299 characters"}},
};

TEST(Check, NamesEachBadLineAndNoGoodOne) {
    Suite suite;
    suite.write("bin/plain", "");
    suite.write("config/vgd_modules", "");
    std::map<std::string, int> lines;
    std::string wanted;
    for (const auto& c : judged_lines) {
        const std::string file = "config/" + c.file;
        suite.write(file, (lines[c.file]++ == 0 ? "" : suite.read(file)) + c.line + "\n");
        for (std::string finding : c.findings) {
            if (const std::size_t at = finding.find('@'); at != std::string::npos)
                finding.replace(at, 1, suite.path("bin"));
            const bool of_whole_file = finding.starts_with("1: ");
            wanted +=
                suite.path(file) + ":" + (of_whole_file ? "" : std::to_string(lines[c.file]) + ": ") + finding + "\n";
        }
    }
    suite.write("data/password", std::string(hash) + " short\n");
    wanted += suite.path("data/password") +
              ":1: not a hash of 64 characters and a salt of 8 characters: nobody needs to log in\n";
    const result got = schedcheck(suite, "--config " + suite.path("config"));
    EXPECT_EQ(got.out, wanted);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.code, 1);
}

// Files whose lines are good one by one.
TEST(Check, NamesWhatAFileMeansAsAWhole) {
    const struct {
        const char* name;
        std::string file;
        std::string text;
        std::string finding;
    } cases[] = {
        {"a first address that lifts the restriction", "config/common.ini",
         "[sched]\nallowed_ip_address = 0.0.0.0/8, 10.0.0.1\n",
         R"(2: allowed_ip_address: "0.0.0.0/8" at the start of the list lets everyone in)"},
        {"eleven addresses, one of them unusable", "config/common.ini",
         "[sched]\nallowed_ip_address = 10.0.0.1 0.0.0.0" + repeated(9, " 10.0.0.2") + "\n",
         R"(2: allowed_ip_address: "0.0.0.0" lets nobody in; it uses up an entry; )"
         R"("10.0.0.2" is ignored: at most 10 are kept)"},
        {"an address of another machine", "config/common.ini", "[sched]\nbound_ip_address = 192.0.2.1\n",
         R"(2: bound_ip_address: "192.0.2.1" is not an address of this machine: the scheduler cannot listen on it)"},
        {"every address of this machine", "config/common.ini", "[sched]\nbound_ip_address = 0.0.0.0\n", ""},
        {"no module", "config/vgd_modules", "# none\n", "1: the list has no entry: every command is refused"},
        {"a hash in upper case", "data/password", std::string(63, '0') + "A k3Zt9wQa\n",
         "1: the hash is not in lower-case hexadecimal digits: nobody can log in"},
    };
    for (const auto& c : cases) {
        Suite suite;
        suite.write(c.file, c.text);
        EXPECT_EQ(schedcheck(suite, "--config " + suite.path("config")).out,
                  c.finding.empty() ? "" : suite.path(c.file) + ":" + c.finding + "\n")
            << c.name;
    }
    Suite suite;
    suite.write("config/vgd_modules", "parts parts - 0\n");  // prognosis is called on some platforms only
    EXPECT_EQ(schedcheck(suite, "--config " + suite.path("config"), "VGD_PLATFORM=KT").out,
              suite.path("config/vgd_modules:1: no entry for what the scheduler itself calls: allmodcall prognosis "
                         "diag devconf confchg analysis qmx ehello\n"));
}

TEST(Check, NamesLinesThatDoNotFitInATable) {
    Suite suite;
    suite.write("config/timer_jobs", repeated(31, "0 3 * * * m\n"));
    std::string list = "m parts - 0\n";
    for (int i = 1; i <= 100; i++) { list += "m" + std::string(static_cast<std::size_t>(i), 'm') + " parts - 0\n"; }
    suite.write("config/vgd_modules", list);
    suite.write("data/password", std::string(hash) + "\n12345678\nmore\n");
    EXPECT_EQ(
        schedcheck(suite, "--config " + suite.path("config")).out,
        suite.path("config/vgd_modules:101: dropped: the list holds at most 100 entries\n") +
            suite.path("config/vgd_modules:1: no entry for what the scheduler itself calls: allmodcall parts diag "
                       "devconf confchg analysis qmx ehello\n") +
            suite.path("config/timer_jobs:31: dropped: the table holds at most 30 jobs\n") +
            suite.path("data/password:3: what follows the hash and the salt is ignored\n"));
    // 127 bytes are read: eight characters of the salt.
    suite.write("data/password", hash + std::string(55, ' ') + "12345678\n");
    EXPECT_THAT(schedcheck(suite, "--config " + suite.path("config")).out, Not(HasSubstr("password")));
    for (const char blank : {' ', '\n'}) {
        suite.write("data/password", std::string(hash) + blank + std::string(54, ' ') + "123456789\n");
        EXPECT_THAT(schedcheck(suite, "--config " + suite.path("config")).out,
                    EndsWith((blank == ' ' ? "/password:1"s : "/password:2"s) +
                             ": what follows the hash and the salt is ignored\n"));
    }
}

TEST(Check, ShippedConfigurationIsCleanAndItsNextRunsArePrinted) {
    Suite suite;
    const result clean =
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
        const result got = schedcheck(suite, c.arguments, c.variables);
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
}

}  // namespace
