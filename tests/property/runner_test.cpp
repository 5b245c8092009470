// Programs whose output is cut anywhere and that end in any way, against what an operator or a capture gets of them.
#include "command/runner.h"

#include "property.h"

#include <csignal>
#include <future>
#include <numeric>

namespace unit {

using namespace std::string_literals;

struct End {
    const char* script;
    int status;  // of waitpid
    const char* line;
    unsigned timeout = 60;
};

struct RunnerProperty : Scratch {
    static constexpr End ends[] = {
        {"exit 0", 0, "__over__ 0 0\r\n"},          {"exit 3", 0x300, "__over__ 3 0\r\n"},
        {"exit 255", 0xff00, "__over__ 255 0\r\n"}, {"kill -9 $$", 9, "__over__ 0 9\r\n"},
        {"kill -TERM $$", 15, "__over__ 0 15\r\n"}, {"(sleep .01; exit 5) & exit 0", 0, "__over__ 0 0\r\n"},
        {"exec sleep 60", 9, "__timeout__\r\n", 2},
    };
    // What an operator gets of the output and the end.
    static std::string answer_of(const std::string& output, const End& end) {
        std::string answer;
        for (const char byte : output) answer += byte == '\n' ? "\r\n"s : std::string(1, byte);
        return answer + (output.empty() || output.back() == '\n' ? "" : "\r\n") + end.line;
    }
    int run(int soc, const End& end, char* capture, int size) const {
        char* argv[] = {const_cast<char*>("m"), nullptr};
        const mutex_guard guard(com_lock);
        const int status = start_command(path("bin/m").c_str(), soc, end.timeout, argv, "", capture, size);
        sigset_t mask;
        struct sigaction action {};
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigaction(SIGALRM, nullptr, &action);
        RC_ASSERT(sigismember(&mask, SIGALRM) == 1);  // both unchanged
        RC_ASSERT(action.sa_handler == SIG_IGN);
        return status;
    }
};

TEST_F(RunnerProperty, OperatorGetsAllOfTheOutputAndACaptureItsFirstBytes) {
    program(
        "m",
        "exec <$D/output; read pieces <$D/pieces; for n in $pieces; do dd bs=$n count=1 status=none; done; . $D/end");
    const auto draw_text = rc::gen::exec([] {
        const std::string text = *rc::gen::element("a"s, "\n"s, "\r\n"s, "\0"s, "\xff"s, "LONG"s, "LONG\n"s);
        return expand(text, {{"LONG", pattern(*rc::gen::element<std::size_t>(100, 5000, 16383))}});
    });
    EXPECT_TRUE(rc::check("operator gets all of the output and a capture its first bytes", [&] {
        const auto texts = *rc::gen::resize(8, rc::gen::container<std::vector<std::string>>(draw_text));
        const std::string output = std::accumulate(texts.begin(), texts.end(), ""s);
        const End& end =
            ends[*rc::gen::weightedElement<std::size_t>({{9, 0}, {9, 1}, {9, 2}, {9, 3}, {9, 4}, {9, 5}, {1, 6}})];
        std::string pieces;
        for (int i = *rc::gen::inRange(0, 4); i > 0; --i)
            pieces += std::to_string(*rc::gen::element<std::size_t>(1, 2, 3, 100, 16384, 60000)) + " ";
        write("output", output);
        write("pieces", pieces + "1000000\n");
        write("end", end.script);
        const int size = *rc::gen::element(-1, -1, 0, 1, 100, 5000, 100000);
        if (size >= 0) {
            std::string captured(static_cast<std::size_t>(size) + 1, '#');
            RC_ASSERT(run(-1, end, captured.data(), size) == end.status);
            const std::string stored = output.substr(0, static_cast<std::size_t>(size));
            RC_ASSERT(captured == stored + std::string(captured.size() - stored.size(), '#'));
            return;
        }
        Sockets sockets;
        std::future<std::string> received = std::async(std::launch::async, [&] { return sockets.received(); });
        const int status = run(sockets.mine.get(), end, nullptr, 0);
        shutdown(sockets.mine.get(), SHUT_WR);
        const std::string answer = received.get();
        RC_ASSERT(status == end.status);
        RC_ASSERT(answer == answer_of(output, end));
    }));
}

}  // namespace unit
