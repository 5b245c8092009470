// The mailbox against a model of who holds which message, the end of an answer against a second parser, and the meaning
// of its lines. rapidcheck prints the seed, and for a failure the smallest input.
#include "mail/mailbox.h"

#include "protocol/answer.h"
#include "protocol/limits.h"
#include "protocol/status.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <pwd.h>
#include <rapidcheck.h>
#include <regex>
#include <sstream>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using strings = std::vector<std::string>;

const std::string box_keys[] = {"127.0.0.1:9980", "db1:9981"};
const std::string stamp = "2026-01-31T12:00:00+00:00;";

strings texts(const std::vector<status_line>& messages) {
    strings result;
    for (const status_line& m : messages) result.push_back(m.text);
    return result;
}

std::vector<status_line> messages_of(const strings& lines) {
    std::vector<status_line> result;
    for (const std::string& line : lines) result.push_back({0, line});
    return result;
}

class Mailbox : public testing::Test {
protected:
    Mailbox() {
        EXPECT_NE(mkdtemp(directory.data()), nullptr);
        setenv("XDG_STATE_HOME", directory.c_str(), 1);
        // Ends the test when a lock is waited for without limit.
        alarm(std::string_view(SCHED_SANITIZE).empty() ? 80 : 0);
        signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit of limit_files() fails instead
    }
    ~Mailbox() override {
        alarm(0);
        limit_files(RLIM_INFINITY);
        fs::remove_all(directory);
    }
    static void limit_files(rlim_t bytes) {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::min(bytes, limit.rlim_max);
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    // What is on the disk can be changed in its place also when the disk is full.
    std::uintmax_t largest_file() const {
        std::uintmax_t size = 0;
        if (!fs::exists(path(""))) return size;
        for (const auto& entry : fs::recursive_directory_iterator(path("")))
            if (entry.is_regular_file()) size = std::max(size, entry.file_size());
        return size;
    }
    std::string path(const std::string& name) const { return directory + "/schedctl/" + name; }
    static std::vector<std::uint64_t> store(mailbox& in, const std::string& key, const strings& lines) {
        std::vector<status_line> messages = messages_of(lines);
        std::vector<std::uint64_t> ids;
        EXPECT_EQ(in.store(key, "127.0.0.1", messages, true), "");
        for (const status_line& m : messages) ids.push_back(m.id);
        return ids;
    }
    std::string directory = testing::TempDir() + "sched-mail-XXXXXX";
};

// A message of the model, and the window that holds it; -1: it waits in the box of its scheduler.
struct Letter {
    std::string key, text;
    std::uint64_t id;
    bool is_followers;
    int holder;
};

// Windows that live beside each other; the last one is a follower. Messages are in the order of their arrival.
struct Post {
    std::unique_ptr<mailbox> windows[3];
    std::vector<Letter> letters;
    int sent = 0;

    static bool follows(int window) { return window == 2; }
    static mail_kind kind_of(int window) { return follows(window) ? mail_kind::followers : mail_kind::operators; }
    strings waiting(const std::string& key, int window) const {
        strings result;
        for (const Letter& l : letters)
            if (l.key == key && l.holder == -1 && (l.is_followers || !follows(window))) result.push_back(l.text);
        return result;
    }
    mailbox& open(int window) {
        if (!windows[window]) windows[window] = std::make_unique<mailbox>(kind_of(window));
        return *windows[window];
    }
    strings next_lines(std::size_t count) {
        strings lines;
        for (std::size_t i = 0; i < count; ++i)
            lines.push_back(stamp + "W0104:" + std::to_string(++sent) + std::string(i % 3 * 50, 'x'));
        return lines;
    }
    void receive(mailbox& by, int window, int holder, const std::string& key, std::size_t count, bool full) {
        std::vector<status_line> messages = messages_of(next_lines(count));
        const std::string problem = by.store(key, "", messages, true);
        RC_ASSERT(full || problem.empty());
        for (const status_line& m : messages) {
            RC_ASSERT((m.id != 0) == problem.empty());
            if (m.id != 0) letters.push_back({key, m.text, m.id, follows(window), holder});
        }
    }
    void take(int window, const std::string& key) {
        const std::vector<status_line> taken = open(window).take(key);
        RC_ASSERT(texts(taken) == waiting(key, window));
        for (const status_line& m : taken)
            for (Letter& l : letters)
                if (l.text == m.text) l.id = m.id, l.holder = window;
    }
    void show(int window, const std::string& key, std::size_t count) {
        std::vector<std::uint64_t> ids;
        for (const Letter& l : letters)
            if (l.holder == window && l.key == key && ids.size() < count) ids.push_back(l.id);
        open(window).settle(key, ids, true);
        std::erase_if(letters, [&](const Letter& l) {
            return l.holder == window && l.key == key && std::count(ids.begin(), ids.end(), l.id) != 0;
        });
    }
    void end(int window, bool lives_on = false) {
        lives_on ? open(window).leave() : windows[window].reset();
        for (Letter& l : letters) l.holder = l.holder == window ? -1 : l.holder;
    }
    // Another process, which is killed behind its last message.
    void be_killed(int window, const std::string& key, std::size_t count) {
        const pid_t child = fork();
        if (child == 0) {
            mailbox own(kind_of(window));
            receive(own, window, -1, key, count, false);
            raise(SIGKILL);
        }
        waitpid(child, nullptr, 0);
        for (const std::string& text : next_lines(count)) letters.push_back({key, text, 0, follows(window), -1});
    }
};

using Step = std::tuple<std::string, int, int, std::size_t, unsigned>;

TEST_F(Mailbox, EveryMessageIsHeldByOneUntilItIsShown) {
    const auto steps = rc::gen::container<std::vector<Step>>(
        rc::gen::tuple(rc::gen::element<std::string>("receive", "show", "end", "take", "receive", "full disk",
                                                     "end on a full disk", "kill", "leave"),
                       rc::gen::inRange(0, 3), rc::gen::inRange(0, 2), rc::gen::inRange<std::size_t>(0, 8),
                       rc::gen::inRange(0U, 300U)));
    const bool holds = rc::check("every message is held by one until it is shown", [&] {
        fs::remove_all(path(""));
        Post post;
        for (const auto& [act, window, host, count, room] : *steps) {
            const std::string& key = box_keys[host];
            if (act == "receive") post.receive(post.open(window), window, window, key, count, false);
            if (act.ends_with("full disk")) limit_files(largest_file() + room);
            if (act == "full disk") post.receive(post.open(window), window, window, key, count, true);
            if (act == "show") post.show(window, key, count);
            if (act.starts_with("end") || act == "leave") post.end(window, act == "leave");
            limit_files(RLIM_INFINITY);
            if (act == "kill") post.be_killed(window, key, count);
            if (act == "take") post.take(window, key);
            RC_ASSERT(texts(mailbox(Post::kind_of(window)).look(key)) == post.waiting(key, window));
        }
        for (const int window : {0, 1, 2}) post.end(window);
        for (const std::string& key : box_keys) post.take(0, key), post.show(0, key, post.letters.size());
        RC_ASSERT(post.letters.empty());
        for (const std::string& key : box_keys) RC_ASSERT(post.open(0).notice(key, "") == "");
        post.end(0);
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            RC_ASSERT(entry.is_directory() || (entry.path().extension() == ".box" && entry.file_size() < 150));
            RC_ASSERT(entry.status().permissions() == fs::perms(entry.is_directory() ? 0700 : 0600));
        }
    });
    EXPECT_TRUE(holds);
}

TEST_F(Mailbox, NewestThousandStayAndTheOthersAreCounted) {
    const auto lines = [](int from, int to) {
        strings result;
        for (int i = from; i < to; ++i) result.push_back(stamp + "W0104:" + std::to_string(i));
        return result;
    };
    {
        mailbox window(mail_kind::operators);
        for (int i = 0; i < 1300; i += 100) {
            store(window, box_keys[0], lines(i, i + 100));
            ASSERT_EQ(window.waiting(box_keys[0]), std::min<std::size_t>(i + 100, max_messages));
        }
    }
    {
        mailbox window(mail_kind::operators);
        store(window, box_keys[0], lines(1300, 1700));
    }
    mailbox reader(mail_kind::operators);
    strings kept = texts(reader.take(box_keys[0]));
    EXPECT_EQ(kept.size(), max_messages);
    unsigned long lost = 0;
    for (const std::string& line : kept) lost += parse_status(line).lost;
    std::erase_if(kept, [](const std::string& line) { return parse_status(line).lost != 0; });
    EXPECT_GE(kept.size(), max_messages - 10);
    EXPECT_EQ(kept, lines(1700 - static_cast<int>(kept.size()), 1700));
    EXPECT_EQ(lost, 1700 - kept.size());
    EXPECT_EQ(counters_of(box_keys[0]).totals.lost, lost);
    EXPECT_EQ(counters_of(box_keys[0]).totals.warning, 1700U);
}

TEST_F(Mailbox, MessageThatNobodyIsShownDoesNotLetItsFileGrow) {
    mailbox window(mail_kind::operators);
    const strings lines(100, stamp + std::string(900, 'x'));
    std::vector<std::uint64_t> ids;
    for (int i = 0; i < 30; ++i) {
        std::ranges::copy(store(window, box_keys[0], lines), std::back_inserter(ids));
        if (i == 25) store(window, box_keys[0], {stamp + "W0104:kept"});
    }
    EXPECT_LT(largest_file(), 2'100'000U);
    window.settle(box_keys[0], ids, true);
    EXPECT_LT(largest_file(), 600'000U);
    strings left = texts(window.look(box_keys[0]));
    std::erase_if(left, [](const std::string& line) { return parse_status(line).lost != 0; });
    EXPECT_EQ(left, strings{stamp + "W0104:kept"});
}

// The directory is one that the users of a group share: what is created in it is open to the group.
TEST_F(Mailbox, WhatAnotherProcessHoldsStaysWithIt) {
    mkdir(path("").c_str(), 0700);
    chmod(path("").c_str(), 02770);
    store(*std::make_unique<mailbox>(mail_kind::operators), box_keys[0],
          {stamp + "E0101:fan 3", stamp + "E0101:fan 4"});
    store(*std::make_unique<mailbox>(mail_kind::operators), "db2:9980", {stamp + "E0101:fan 5"});
    store(*std::make_unique<mailbox>(mail_kind::operators), box_keys[1], {stamp + "E0101:at another port"});
    mailbox holder(mail_kind::operators);
    const auto held = holder.take(box_keys[0]);
    ASSERT_EQ(held.size(), 2U);
    EXPECT_EQ(holder.notice(box_keys[0], ""), "");
    mailbox other(mail_kind::operators);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(other.take(box_keys[0]).empty());
    const std::string notice = "2 messages held by process " + std::to_string(getppid() > 1 ? getppid() : getpid()) +
                               ", which has not shown them yet\n"
                               "1 message under the name db2:9980; schedctl -H db2:9980 status shows them\n";
    for (int i = 0; i < 100; ++i)  // not every call waits for the holder
        ASSERT_EQ(other.notice(box_keys[0], "127.0.0.1"), notice);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 50 * held_briefly);
    holder.settle(box_keys[0], {held[0].id}, true);
    holder.settle(box_keys[0], {held[1].id}, false);
    EXPECT_EQ(texts(other.take(box_keys[0])), strings{stamp + "E0101:fan 4"});
    for (const auto& entry : fs::recursive_directory_iterator(path("")))
        EXPECT_EQ(entry.status().permissions(), fs::perms(entry.is_directory() ? 02770 : 0660)) << entry.path();
}

TEST_F(Mailbox, IsBelowTheHomeOfItsOwnUser) {
    setenv("XDG_STATE_HOME", "no/absolute/path", 1);
    setenv("HOME", directory.c_str(), 1);
    EXPECT_EQ(private_directory(), directory + "/.local/state/schedctl");
    if (const passwd* const nobody = getpwuid(65534); geteuid() == 0 && nobody != nullptr && seteuid(65534) == 0) {
        EXPECT_EQ(private_directory(), nobody->pw_dir + "/.local/state/schedctl"s);  // as below sudo
        unsetenv("HOME");
        EXPECT_EQ(private_directory(), nobody->pw_dir + "/.local/state/schedctl"s);
        EXPECT_EQ(seteuid(0), 0);
    }
}

TEST_F(Mailbox, HeldConnectionEndsWithItsProcess) {
    const auto now = std::chrono::steady_clock::now();
    mkdir(path("").c_str(), 0700);
    mkdir(path("live").c_str(), 0700);
    const pid_t child = fork();
    if (child == 0) {
        const state_file held = hold_connection(box_keys[0], now);
        raise(held.is_open() ? SIGSTOP : SIGKILL);
        raise(SIGKILL);
    }
    waitpid(child, nullptr, WUNTRACED);
    EXPECT_TRUE(is_held(box_keys[0]));
    EXPECT_FALSE(is_held(box_keys[0], now));
    EXPECT_TRUE(is_held(box_keys[0], now + std::chrono::nanoseconds(1)));
    EXPECT_FALSE(hold_connection(box_keys[0], now).is_open());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    {
        const state_file other(path("live/" + box_keys[0] + ".held"), state_file::access::read);
        flock(other.fd(), LOCK_SH);  // another process looks at the same time
        EXPECT_FALSE(is_held(box_keys[0]));
    }
    EXPECT_TRUE(fs::is_empty(path("live")));
    EXPECT_TRUE(hold_connection(box_keys[0], now).is_open());
    state_file fresh(path("live/" + box_keys[1] + ".held"), state_file::access::create);
    EXPECT_TRUE(fresh.lock());
    EXPECT_FALSE(is_held(box_keys[1])) << "its time is not written yet";
    unlink(fresh.path().c_str());
    EXPECT_FALSE(fresh.lock());
}

// Files that the mailbox has not written, under names that it uses, and lines in its own files.
TEST_F(Mailbox, WhatIsNoMailIsLeftAndReported) {
    store(*std::make_unique<mailbox>(mail_kind::operators), box_keys[0], {stamp + "E0101:fan 3"});
    const std::string box = path("mail/" + box_keys[0] + ".1.box");
    const std::string whole = *read_file(box), record = whole.substr(123);
    std::string garbage = "no record\n+\xff\n" + record.substr(0, 40) + "\n";
    for (const std::size_t at : {0, 1, 5, 21, 23, 40}) garbage += std::string(record).replace(at, 1, "x");
    const std::string left = std::string(record).replace(24, 1, "x");  // no process has this name
    std::ofstream(box, std::ios::binary | std::ios::app)
        << left << garbage << record.substr(0, 60);  // of a process that was killed
    std::ofstream(directory + "/letter") << whole;
    std::ofstream(directory + "/long") << std::string(65537, 'x');
    EXPECT_EQ(read_file(directory + "/long")->size(), 65537U);
    std::ofstream(path("live/4711.0badf00d")), std::ofstream(path("live/notes"));
    for (int i = 1; i <= 8; ++i) {  // boxes whose first line has another form
        const std::string first = i % 2 == 0 ? whole.substr(0, 122) + " " : whole.substr(0, 100 + i) + "\n";
        std::ofstream(path("mail/db3:9982." + std::to_string(i) + ".box")) << first << record;
        std::ofstream(path("mail/db4:9982." + std::to_string(i) + ".box")) << std::string(122, 'x') << "\n" << record;
    }
    mkfifo(path("mail/db4:9982.9.box").c_str(), 0600);
    mkfifo(path("mail/" + box_keys[1] + ".1.box").c_str(), 0600);
    fs::create_symlink(directory + "/letter", path("mail/" + box_keys[1] + ".2.box"));
    fs::create_directory(path("mail/" + box_keys[1] + ".3.box"));
    std::ofstream(path("mail/" + box_keys[1] + ".4.box")) << "the file of another program\n";
    std::string notice;
    {
        mailbox reader(mail_kind::operators);
        const auto taken = reader.take(box_keys[0]);
        EXPECT_EQ(texts(taken), strings(2, stamp + "E0101:fan 3"));
        EXPECT_TRUE(reader.take(box_keys[1]).empty() && reader.take("db3:9982").empty());
        EXPECT_EQ(store(reader, box_keys[0], {stamp + "E0101:fan 5"}).size(), 1U);
        EXPECT_EQ(store(reader, box_keys[1], {stamp + "E0101:fan 4"}).size(), 1U);
        EXPECT_EQ(store(reader, "db3:9982", {stamp + "E0101:fan 6"}).size(), 1U);
        auto more = messages_of({stamp + "E0101:fan 7"});
        EXPECT_EQ(reader.store("db4:9982", "", more, true), path("mail/db4:9982.9.box") + ": Invalid argument");
        notice = reader.notice(box_keys[0], "127.0.0.1");
        reader.settle(box_keys[0], {taken.empty() ? 0 : taken[0].id}, true);
        EXPECT_TRUE(fs::exists(path("live/notes")) && !fs::exists(path("live/4711.0badf00d")));
    }
    for (const char* name :
         {"127.0.0.1:9980.1.box", "db1:9981.1.box", "db1:9981.2.box", "db1:9981.3.box", "db1:9981.4.box"})
        EXPECT_THAT(notice, testing::HasSubstr(name));
    EXPECT_EQ(*read_file(path("mail/" + box_keys[1] + ".4.box")), "the file of another program\n");
    EXPECT_EQ(texts(mailbox(mail_kind::operators).take(box_keys[0])).back(), stamp + "E0101:fan 5");
    EXPECT_EQ(texts(mailbox(mail_kind::operators).take(box_keys[1])), strings{stamp + "E0101:fan 4"});
    mailbox last(mail_kind::operators);
    EXPECT_EQ(texts(last.take("db3:9982")), strings{stamp + "E0101:fan 6"});
    for (const status_line& m : last.take(box_keys[0])) last.settle(box_keys[0], {m.id}, true);
    EXPECT_THAT(*read_file(box), testing::HasSubstr(garbage));
}

// ---- the end of an answer --------------------------------------------------------------------------------------

// The answers of modules and of the scheduler, cut at any place, against a reader of whole lines.
struct Reading {
    std::string text;
    std::string end;  // the terminating line
    std::size_t used = 0;
};

Reading read_whole(const std::string& bytes) {
    static const std::regex challenge(R"(__unauth__ [^\s\x00]{1,127} [^\s\x00]{1,127}\r\n)");
    Reading result;
    for (std::size_t at = 0, end = 0; (end = bytes.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = bytes.substr(at, end + 1 - at);
        const auto is = [&line](std::initializer_list<const char*> words) {
            return std::any_of(words.begin(), words.end(), [&](const char* w) { return line == w + "\r\n"s; });
        };
        if (is({"__over__ 0 0", "__over__ 255 0", "__over__ 0 134", "__timeout__"}) ||
            (at == 0 && (is({"__busy__", "__unsupported__"}) || std::regex_match(line, challenge)))) {
            result.end = line;
            result.used = end + 1;
            break;
        }
        result.text += line.ends_with("\r\n") ? line.substr(0, line.size() - 2) + "\n" : line;
    }
    return result;
}

TEST(Answer, EndsAtItsTerminatingLineWhereverItIsCut) {
    const auto pieces = rc::gen::container<strings>(rc::gen::element(
        "a"s, "\r\n"s, "\n"s, "\r"s, "__over__ 0 0"s, "__over__ 255 0"s, "__over__ 0 134"s, "__over__ "s,
        "__over__ 01 2"s, "__over__ 1 2 3"s, "__timeout__"s, " x"s, "__busy__"s, "__unsupported__"s, "__unauth__ a b"s,
        "__unauth__ a"s, "Good-bye."s, "\0\x01\xff"s, std::string(300, 'y')));
    const bool holds = rc::check("an answer ends at its terminating line, wherever it is cut", [&] {
        std::string bytes;
        for (const std::string& piece : *pieces) bytes += piece;
        bytes += "\r\n__over__ 0 0\r\nnext";
        const Reading wanted = read_whole(bytes);
        answer_parser parser;
        std::string text;
        std::string input;
        std::size_t given = 0;
        std::optional<command_result> end;
        while (given < bytes.size() && !end) {
            const std::string piece = bytes.substr(given, *rc::gen::inRange<std::size_t>(1, 20));
            input += piece;
            given += piece.size();
            end = parser.feed(input, text);
        }
        RC_ASSERT(end.has_value());
        RC_ASSERT(text == wanted.text);
        RC_ASSERT(given - input.size() == wanted.used);
        RC_ASSERT((end->how == outcome::over) == wanted.end.starts_with("__over__"));
        RC_ASSERT(end->signal == (wanted.end.ends_with(" 134\r\n") ? 6 : 0));
        RC_ASSERT(end->code == (wanted.end.starts_with("__over__ 255") ? 255 : 0));
    });
    EXPECT_TRUE(holds);
}

TEST(Status, AgeHasTheTwoLargestUnits) {
    for (const auto& [age, text] : {std::pair(-100, "0s"), {61, "1m [1-9]s"}, {3600, "1h 0m"}, {90000, "1d 1h"}}) {
        const std::time_t then = std::time(nullptr) - age;
        char since[32] = "";
        std::strftime(since, sizeof since, "%FT%T+00:00", std::gmtime(&then));
        EXPECT_THAT(age_of(since), testing::MatchesRegex(text));
    }
}

TEST(Status, ReportHasEveryLineAndAgainGivesThem) {
    const std::string lost = "W0100: message queue overflow, 3 messages were lost.\n";
    const std::string confdate = "confdate  2026-01-31T12:00:00+00:00\n";
    const status_report report = parse_status(stamp + lost + lost + confdate + "no form\n" + stamp + confdate + lost +
                                              stamp + stamp + "x\n" + stamp);
    strings messages;
    for (const message& m : report.messages) messages.push_back(m.date + ";" + m.text + "\n");
    EXPECT_THAT(messages, testing::ElementsAre(stamp + lost, stamp + confdate, stamp + stamp + "x\n", stamp + "\n"));
    EXPECT_EQ(report.lost, 6U);
    ASSERT_EQ(report.conditions.size(), 1U);
    EXPECT_EQ("confdate  " + report.conditions[0].since + "\n", confdate);
}

}  // namespace
