// Random bytes of the event pipe, near the borders of what is a message, against a table of the messages' effects.
// Finds lines that are split or taken for messages wrongly, wrong marks, stamps and follow-up commands, and messages
// that operators or the event log do not get, or get changed.
#include "command/module_table.h"
#include "event/event_pipe.h"
#include "event_oracle.h"
#include "property.h"

#include <map>
#include <numeric>

namespace unit {

using namespace std::string_literals;

constexpr std::time_t module_date = 1714979289;  // what devconf reports

using Exits = std::map<std::string, int>;                          // of each module, its exit code
using State = std::map<std::string, std::pair<int, std::string>>;  // of each mark, whether it is set, and its stamp

struct EventProperty : Scratch {
    EventProperty() {
        std::string list;
        for (const std::string module : {"diag", "parts", "devconf", "confchg", "analysis"}) {
            program(module,
                    "echo " + module + " $* >>$D/calls; echo 2024-05-06T07:08:09Z; . $D/exits; exit $" + module);
            list += module + " " + module + " - 60\n";
        }
        write("config/vgd_modules", list);
        EXPECT_EQ(read_modules(), 0);
    }
    std::map<std::string, status_mark*> marks = {
        {"confdate", &st->confdate}, {"error", &st->error}, {"prevent", &st->prevent},
        {"diag", &st->diag},         {"conf", &st->conf},   {"patrol", &st->patrol},
        {"korvo", &st->korvo},       {"snap", &st->snap},   {"padiag", &st->padiag},
    };
    std::time_t unchanged = 1;  // stamp of every mark before a line
    State state() const {
        State all;
        for (const auto& [name, mark] : marks) {
            std::string stamp = mark->stamp.time == unchanged ? "as before" : "now";
            if (mark->stamp.time == module_date) stamp = "of the module";
            if ((mark->stamp.ticks == unchanged) == (stamp == "now")) stamp = "torn";
            all[name] = {mark->set, stamp};
        }
        return all;
    }
    // The effect of a code on the marks; returns the module calls.
    static std::string effect(int code, State& mark, const Exits& exits) {
        const std::map<int, std::string> setting = {{1, "error"},     {2, "error"},    {3, "prevent"},
                                                    {4, "conf"},      {6, "confdate"}, {7, "diag"},
                                                    {12, "confdate"}, {14, "snap"},    {17, "korvo"}};
        if (setting.contains(code)) mark[setting.at(code)] = {1, "now"};
        if (code == 8 && exits.at("diag") == 0) mark["diag"].first = 0;
        if (code == 11)
            mark["error"] = exits.at("parts") == 2 ? std::pair{1, "now"s} : std::pair{0, mark["error"].second};
        if (code == 15) mark["snap"].first = 0;
        if (code == 18) mark["korvo"].first = 1;
        if (code == 8) return "diag status\n";
        if (code == 11) return "parts status\n";
        if (code != 5) return "";
        const bool is_changed = mark["confdate"].second != "of the module" && exits.at("devconf") == 0;
        if (exits.at("devconf") == 0) mark["confdate"] = {1, "of the module"};
        mark["conf"].first = 0;
        return "devconf date\n"s + (is_changed ? "confchg\n" : "") + "analysis error\n";
    }
    void check_line(hmistruc& hmi, const std::string& line, const Exits& exits, std::string& logged) const {
        const event_oracle wanted(line);
        if (wanted.ends_process) return;
        State marked = state();
        const std::string calls = wanted.is_message ? effect(std::stoi(wanted.text.substr(3, 2)), marked, exits) : "";
        do_eventmsg(line.c_str());
        RC_ASSERT(state() == marked);
        for (const auto& [name, mark] : marks)
            if (marked[name].second == "now") mark->stamp.time = mark->stamp.ticks = unchanged;
        RC_ASSERT(read("calls") == calls);
        fs::remove(path("calls"));
        char queued[message_size] = "";
        std::uint32_t when = 0;
        RC_ASSERT((hmistruc_dequeue(hmi, queued, when) == 0) == wanted.is_queued);
        RC_ASSERT(std::string(queued) == (wanted.is_queued ? wanted.text : ""));
        if (wanted.is_message) logged += wanted.text.substr(0, 100) + "\n";
    }
    // The beginnings of the texts in the event log, without their dates.
    std::string event_log() const {
        std::ifstream lines(path("log/event_log"));
        std::string all;
        for (std::string line; std::getline(lines, line);) all += line.substr(line.find(" : ") + 3, 100) + "\n";
        return all;
    }
};

// A line near the borders of what is a message. LONG stands for a text that is nearly as long as a line.
static std::string draw_line() {
    std::string line = *rc::gen::element<std::string>("", "ALL;", "MB;", "ALL;MB;", "MB;ALL;", "ALL;ALL;", "all;");
    char digits[8];
    format_text(digits, "%02d%02d", *rc::gen::inRange(0, 100), *rc::gen::inRange(0, 21));
    line += *rc::gen::elementOf("EWIDM"s) + std::string(digits);
    line += *rc::gen::weightedElement<std::string>({{9, ":"}, {1, ""}, {1, "0:"}});
    line += *rc::gen::weightedElement<std::string>({{6, "x"}, {1, ""}, {1, "ALL;\t"}, {1, "x\r"}, {3, "LONG"}});
    line += std::string(*rc::gen::inRange<std::size_t>(0, 8), '.');
    if (*rc::gen::weightedElement<int>({{4, 0}, {1, 1}}) != 0)
        line[*rc::gen::inRange<std::size_t>(0, line.size())] = *rc::gen::elementOf("/:;EX09e\0\n\xff"s);
    return line + *rc::gen::weightedElement<std::string>({{9, "\n"}, {1, ""}});
}

TEST_F(EventProperty, LinesHaveTheEffectsOfTheirCodes) {
    hmistruc& hmi = *hmistruc_get();
    const bool holds = rc::check("lines have the effects of their codes", [&] {
        const auto lines = *rc::gen::container<std::vector<std::string>>(rc::gen::exec(draw_line));
        Exits exits;
        std::ofstream script(path("exits"));
        for (const char* module : {"diag", "parts", "devconf", "analysis"}) {
            exits[module] = *rc::gen::inRange(0, 3);
            script << module << "=" << exits[module] << "\n";
        }
        script.close();
        fs::remove(path("log/event_log"));
        unchanged = *rc::gen::element<std::time_t>(1, 2 * module_date);
        for (const auto& [name, mark] : marks) {
            mark->set = *rc::gen::element<std::uint8_t>(0, 1);
            mark->stamp.time = mark->stamp.ticks = unchanged;
        }
        event_line reader;
        std::string line;
        std::string logged;
        for (const char byte :
             expand(std::accumulate(lines.begin(), lines.end(), ""s), {{"LONG", std::string(1010, '-')}})) {
            line += byte;
            const bool ended = byte == '\n' || line.size() == 1024;
            RC_ASSERT(reader.add(byte) == ended);
            if (!ended) continue;
            line.pop_back();
            RC_ASSERT(reader.text() == std::string(line.c_str()));
            check_line(hmi, reader.text(), exits, logged);
            line.clear();
        }
        RC_ASSERT(event_log() == logged);
    });
    EXPECT_TRUE(holds);
}

}  // namespace unit
