// The parts of `watch` and `follow`: changes, lines, the state file, keys.
#include "agent/agent_client.h"
#include "e2e/harness.h"
#include "watch/drawing.h"
#include "watch/events.h"
#include "watch/inquiry.h"
#include "watch/snapshot.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

using namespace e2e;
using nlohmann::json;

namespace {

const std::string then = "2026-11-25T10:00:00+00:00";
const std::string later = "2026-11-25T10:00:02+00:00";

TEST(WatchChanges, AnAnswerTellsWhatWasSetAgainWhatEndedAndWhatBrokeOff) {
    const Suite scratch;
    setenv("XDG_STATE_HOME", scratch.path("state").c_str(), 1);
    inquiry round({"db1", "db1", 9980});
    round.known.conditions = {{"conf", then}, {"error", then}, {"prevent", then}};
    round.known.messages.resize(20);  // no more are kept
    round.failed(outcome::no_answer);
    status_answer answer;
    answer.lines = {{7, then + ";E0101:conf " + later}, {8, "W0100: message queue overflow, 3 messages were lost."}};
    for (const auto& [name, date] : {std::pair("conf", then), {"error", later}}) {
        answer.lines.push_back({0, name + (" " + date)});
    }
    for (const bool complete : {true, false}) {
        SCOPED_TRACE(complete);
        answer.complete = complete;
        inquiry asked = round;
        const std::vector<event> news = asked.status(answer);
        ASSERT_EQ(news.size(), complete ? 4U : 2U);
        const event* const messages = &news[news.size() - 2];
        EXPECT_EQ(messages[0].text, "E0101:conf " + later);
        EXPECT_EQ(messages[0].id, 7U);
        EXPECT_EQ(messages[1].lost, 3U);
        EXPECT_EQ(messages[1].id, 8U);
        EXPECT_EQ(asked.known.conditions.size(), complete ? 2U : 3U);
        EXPECT_EQ(asked.known.messages.size(), 20U);
        EXPECT_EQ(asked.known.failure == 0 && asked.known.problem.empty(), complete);
        EXPECT_EQ(asked.known.answered, 0);  // it is a last answer, which no request asked for
        if (complete) {
            EXPECT_EQ(line_of(news[0]), later + " condition error set");
            EXPECT_THAT(line_of(news[1]), EndsWith(" condition prevent cleared"));
        }
    }
}

TEST(WatchEvents, LinesHaveTheirPriorityAndMembers) {
    const host_name host{"DB1", "db1", 9981};
    const struct {
        event what;
        const char* start;
        const char* members;
        const char* text;
    } cases[] = {
        {connected_event(), "<5>", R"("event":"connected"})", "connected"},
        {failed_event({outcome::closed, "why"}), "<3>", R"("reason":"no connection: why"})",
         "disconnected: no connection: why"},
        {failed_event(outcome::no_answer), "<3>", R"("event":"disconnected","reason":"no answer in time"})",
         "no answer"},
        {condition_event({"error", then}, true), "<3>", R"("name":"error","set":true})", "condition error set"},
        {condition_event({"conf", then}, true), "<4>", R"("name":"conf","set":true})", "condition conf set"},
        {condition_event({"patrol", then}, true), "<6>", R"("name":"patrol","set":true})", "condition patrol set"},
        {condition_event({"error", then}, false), "<5>", R"("name":"error","set":false})", "condition error cleared"},
        {message_event({then, "E0101:a \"\xff"}, 1), "<3>",
         R"("code":"E0101","severity":"error","text":"E0101:a \"\ufffd"})", "message E0101:a \"\xff"},
        {message_event({then, "W12x4:a"}, 1), "<4>", R"("code":"","severity":"warning","text":"W12x4:a"})",
         "message W12x4:a"},
        {message_event({then, "I0110 a"}, 1), "<6>", R"("code":"","severity":"info")", "message I0110 a"},
        {lost_event(3, 1), "<4>", R"("event":"lost","count":3})", "3 messages were lost"},
    };
    for (const auto& c : cases) {
        const std::string line = json_line(c.what, host, true);
        EXPECT_THAT(line, testing::AllOf(StartsWith(c.start), HasSubstr(c.members))) << c.text;
        EXPECT_THAT(line, HasSubstr(R"("host":"db1","port":9981,)"));
        EXPECT_EQ(line_of(c.what), c.what.date + " " + c.text);
        EXPECT_EQ("<" + std::to_string(c.what.priority) + ">" + json_line(c.what, host, false), line);
    }
}

TEST(WatchStateFile, IsBelievedForTwiceItsIntervalAndUntilTheMachineRestarts) {
    Suite scratch;
    setenv("XDG_STATE_HOME", scratch.path("state").c_str(), 1);
    const host_name host{"db1", "db1", 9980};
    snapshot state;
    state.up = true;
    state.timer_jobs = 3;
    state.messages = {{then, "E0101:fan"}};
    write_state_file(host, state, 600);
    const std::string name = "state/schedctl/" + key_of(host) + ".json";
    EXPECT_EQ(shell("stat -c %a " + scratch.path(name)), "644\n");
    const json written = json::parse(scratch.read(name));
    const std::optional<snapshot> read = followed_state(host);
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(read->up && read->timer_jobs == 3 && read->operators < 0 && read->messages[0].text == "E0101:fan");
    const double now = written["written"];
    const struct {
        const char* name;
        json change;
        bool believed;
    } cases[] = {
        {"within two intervals", {{"written", now - 1100}}, true},
        {"after two intervals", {{"written", now - 1201}}, false},
        {"of a clock that began anew", {{"written", now + 100}}, false},
        {"of another start of the machine", {{"boot", "5c2d"}}, false},
        {"of an older version", {{"boot", nullptr}}, false},
        {"without a part", {{"totals", nullptr}}, false},
    };
    for (const auto& c : cases) {
        json changed = written;
        changed.update(c.change);
        scratch.write(name, changed.dump());
        EXPECT_EQ(followed_state(host).has_value(), c.believed) << c.name;
    }
    scratch.write(name, written.dump().substr(1));
    EXPECT_FALSE(followed_state(host).has_value());
    unsetenv("XDG_STATE_HOME");
}

TEST(WatchKeys, MoveTheTopEditTheFilterAndQuit) {
    for (const std::string line :  // typed keys > top and filter; _: being edited
         {"\033[A>9 old", "\033OA>9 old", "\033[B>11 old", "\033OB>11 old", "\033[5~>5 old", "\033[6~\033[A>14 old",
          "\033[H>0 old", "\033[F>1000010 old", "\033>10 ", "x>10 old", "/>10 _", "/qu\n>10 qu",
          "/b\177a\bb\177c\r>10 c", "/qu\033[B>11 qu_", "/qu\033>10 ", "q>10 old ends", "qx>10 old ends"}) {
        host_keys keys{.filter = "old", .top = 10, .page = 5};
        keys.handle(line.substr(0, line.find('>')));
        EXPECT_EQ(
            std::to_string(keys.top) + " " + keys.filter + (keys.editing ? "_" : "") + (keys.quits ? " ends" : ""),
            line.substr(line.find('>') + 1));
    }
}

}  // namespace
