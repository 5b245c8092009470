#include "agent/agent_client.h"

#include "protocol/limits.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace client {

// A call of a function on the other side is sent as the function's number (`call` or `event`) and its arguments, in
// CBOR. The text of a message may have any bytes, and CBOR keeps them as they are. Both sides are the same program, so
// a call is never malformed.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(message_totals, error, warning, info, lost)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_line, id, text, is_message)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_answer, request, lines, complete, seconds, totals, unstored, notice)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(command_result, how, code, signal, reason)

namespace {

using json = nlohmann::json;

enum class call { ask, cancel, close, settle, fetch_stored, password };     // of the front
enum class event { output, status, ended, closed, password_needed, left };  // of the agent

template <typename name, typename... argument>
void send(channel& to, name function, const argument&... arguments) {
    std::string frame;
    json::to_cbor(json::array({json(function), json::array({json(arguments)...})}), frame);
    to.send(frame);
}

template <typename object, typename... argument>
void carry_out(object& of, void (object::*function)(argument...), const json& arguments) {
    auto values = arguments.get<std::tuple<std::decay_t<argument>...>>();
    std::apply([&](auto&... value) { (of.*function)(value...); }, values);
}

// Calls a function with the arguments of a frame.
template <auto function, typename object>
void on(object& of, const json& arguments) {
    carry_out(of, function, arguments);
}

// In the order of `call`.
constexpr void (*call_handlers[])(agent&, const json&) = {on<&agent::ask>,          on<&agent::cancel>,
                                                          on<&agent::close>,        on<&agent::settle>,
                                                          on<&agent::fetch_stored>, on<&agent::password>};

// In the order of `event`, without `left`.
constexpr void (*event_handlers[])(agent_listener&, const json&) = {
    on<&agent_listener::output>, on<&agent_listener::status>, on<&agent_listener::ended>,
    on<&agent_listener::closed>, on<&agent_listener::password_needed>};

// The agent's half of the conversation with its front.
class agent_process : private agent_listener {
public:
    agent_process(const std::vector<host_name>& hosts, const agent_options& how, descriptor socket)
        : channel_(std::move(socket)), agent_(hosts, how, *this) {}

    void run() {
        for (bool front_lives = true; front_lives;) {
            pollfd front[] = {{channel_.fd(), channel_.events(), 0}};
            agent_.step(front, agent::clock::time_point::max());
            front_lives = front[0].revents == 0 || channel_.update();
            while (std::optional<std::string> frame = channel_.next()) {
                const json values = json::from_cbor(*frame);
                call_handlers[values[0].get<std::size_t>()](agent_, values[1]);
            }
        }
        agent_.finish([this] {
            send(channel_, event::left);
            channel_.flush();
        });
    }

private:
    void output(std::size_t host, std::uint32_t request, const std::string& text) override {
        send(channel_, event::output, host, request, text);
    }
    void status(std::size_t host, const status_answer& answer) override {
        send(channel_, event::status, host, answer);
    }
    void ended(std::size_t host, std::uint32_t request, const command_result& end) override {
        send(channel_, event::ended, host, request, end);
    }
    void closed(std::size_t host, std::size_t waiting, bool held) override {
        send(channel_, event::closed, host, waiting, held);
    }
    void password_needed(std::size_t host) override { send(channel_, event::password_needed, host); }

    channel channel_;
    agent agent_;
};

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

// Returns the front's socket.
descriptor start_agent(const std::vector<host_name>& hosts, const agent_options& how) {
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
        front.reset();
        detach();
        close_inherited(back.get());
        try {
            agent_process(hosts, how, std::move(back)).run();
        } catch (const std::exception&) {
            _exit(1);  // the front reports it
        }
        _exit(0);
    }
    return front;
}

}  // namespace

agent_client::agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener& events)
    : hosts_(std::move(hosts)),
      listener_(events),
      channel_(start_agent(hosts_, how)),
      closed_(hosts_.size()) {}

std::uint32_t agent_client::ask(std::size_t host, const std::vector<std::string>& words) {
    send(channel_, call::ask, host, ++last_request_, words);
    return last_request_;
}

std::uint32_t agent_client::fetch_stored(std::size_t host, outcome how) {
    send(channel_, call::fetch_stored, host, ++last_request_, how);
    return last_request_;
}

void agent_client::cancel(std::size_t host, std::uint32_t request) {
    send(channel_, call::cancel, host, request);
}

void agent_client::close(std::size_t host) {
    closed_[host] = false;
    send(channel_, call::close, host);
}

void agent_client::settle(const std::vector<std::uint64_t>& ids, bool were_shown) {
    send(channel_, call::settle, ids, were_shown);
}

void agent_client::password(std::size_t host, const std::optional<std::string>& text) {
    send(channel_, call::password, host, text.value_or(""), text.has_value());
}

void agent_client::step(std::span<pollfd> others, clock::time_point until) {
    const bool lives = !wait_for(channel_.fd(), channel_.events(), others, until) || channel_.update();
    while (const std::optional<std::string> frame = channel_.next()) {
        handle(json::from_cbor(*frame));
    }
    if (!lives) {
        throw std::runtime_error("the agent, its process for the connections, has ended");
    }
}

void agent_client::handle(const json& frame) {
    const json& arguments = frame[1];
    const auto what = frame[0].get<event>();
    if (what == event::left) {
        left_ = true;
        return;
    }
    if (what == event::closed) {
        closed_[arguments[0]] = true;
    }
    if (what == event::status && is_ended_) {
        // Messages that come after our last call are not shown, because shown() can no longer be called for them. Other
        // processes get them.
        auto answer = arguments[1].get<status_answer>();
        std::erase_if(answer.lines, [](const status_line& line) { return line.id != 0; });
        return listener_.status(arguments[0], answer);
    }
    event_handlers[static_cast<std::size_t>(what)](listener_, arguments);
}

void agent_client::finish(std::span<pollfd> others) {
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        close(host);
    }
    const clock::time_point limit = clock::now() + close_timeout;
    const auto step_until = [&](const auto& is_done) {
        const auto is_interrupted = [](const pollfd& p) { return p.revents != 0; };
        while (!is_done() && clock::now() < limit &&
               std::none_of(others.begin(), others.end(), is_interrupted)) {
            step(others, limit);
        }
    };
    step_until([this] { return std::find(closed_.begin(), closed_.end(), false) == closed_.end(); });
    is_ended_ = true;
    channel_.end();
    step_until([this] { return left_; });
}

}  // namespace client
