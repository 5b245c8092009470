#include "agent/agent_client.h"

#include "protocol/limits.h"
#include "term/signals.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace {

using json = nlohmann::json;

// In the order of `to_front`, without `left`.
constexpr void (*event_handlers[])(agent_listener&, const json&) = {
    carry_out<&agent_listener::output>, carry_out<&agent_listener::status>, carry_out<&agent_listener::ended>,
    carry_out<&agent_listener::closed>, carry_out<&agent_listener::password_needed>};

// For the agent: neither the terminal nor a monitoring engine that kills the process group of its check may end it
// before it has stored the messages. It must not keep the standard output open: a caller would wait for its end.
void detach() {
    setsid();
    // The three standard descriptors are open, so this is another one.
    const descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing.get(), fd);
    }
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
        std::signal(signo, SIG_IGN);
    }
}

// Closes what the process has inherited, such as the lock file of a script: it must not stay open as long as the agent
// waits for a silent scheduler.
void close_inherited(int kept) {
    constexpr unsigned first = STDERR_FILENO + 1;
    const auto own = static_cast<unsigned>(kept);
    if (own > first) {
        close_range(first, own - 1, 0);
    }
    close_range(own + 1, UINT_MAX, 0);
}

// Each host needs a descriptor, and for moments two more for its files.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);  // after a refusal, connections fail with the reason
    }
}

// Returns the front's socket.
descriptor start_agent(const std::vector<host_name>& hosts, const agent_options& how) {
    raise_descriptor_limit();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    descriptor front(ends[0]);
    descriptor back(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        detach();
        close_inherited(back.get());  // the front's end, too
        try {
            agent(hosts, how, channel(std::move(back))).run();
        } catch (const std::exception&) {  // the front sees the end of the connection and reports it
        }
        _exit(0);
    }
    return front;
}

}  // namespace

agent_client::agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener& events)
    : hosts_(std::move(hosts)),
      listener_(events),
      has_password_(!how.connect.password_file.empty()),
      channel_(start_agent(hosts_, how)),
      closed_(hosts_.size()) {}

std::optional<std::string> agent_client::ask_password(std::size_t host) {
    std::string text;
    std::string problem;
    bool given = false;
    // The prompt needs these signals; it handles Ctrl-C itself.
    with_usual_signals(
        [&] { given = ::ask_password("Password for " + hosts_[host].name + ": ", false, text, problem); });
    has_password_ = has_password_ || given;
    password(host, given ? text : problem, given);
    wipe(text);
    return given ? std::nullopt : std::optional(problem);
}

bool agent_client::needs_password() const {
    return hosts_.size() == 1 && !has_password_ && counters_of(key_of(hosts_[0])).login && has_terminal();
}

void agent_client::step(std::span<pollfd> others, clock::time_point until) {
    const bool lives = !wait_for(channel_.fd(), channel_.events(), others, until) || channel_.update();
    while (const std::optional<json> frame = channel_.next()) {
        handle(*frame);
    }
    if (!lives) {
        throw std::runtime_error("the agent, its process for the connections, has ended");
    }
}

void agent_client::handle(const json& frame) {
    const json& arguments = frame[1];
    const auto what = frame[0].get<to_front>();
    if (what == to_front::left) {
        left_ = true;
        return;
    }
    if (what == to_front::closed) {
        closed_[arguments[0]] = true;
    }
    if (what == to_front::status && is_ended_) {
        // Messages that come after our last call are not shown, because shown() can no longer be called for them. Other
        // processes get them.
        auto answer = arguments[1].get<status_answer>();
        std::erase_if(answer.lines, [](const status_line& line) { return line.id != 0; });
        return listener_.status(arguments[0], answer);
    }
    event_handlers[static_cast<std::size_t>(what)](listener_, arguments);
}

void agent_client::finish(std::span<pollfd> others) {
    for (std::size_t host = 0; host < closed_.size(); ++host) {
        close(host);
    }
    const clock::time_point limit = clock::now() + close_timeout;
    const auto step_until = [&](const auto& is_done) {
        const auto is_interrupted = [](const pollfd& p) { return p.revents != 0; };
        while (!is_done() && clock::now() < limit && std::none_of(others.begin(), others.end(), is_interrupted)) {
            step(others, limit);
        }
    };
    step_until([this] { return std::find(closed_.begin(), closed_.end(), false) == closed_.end(); });
    is_ended_ = true;
    channel_.end();
    step_until([this] { return left_; });
}
