#include "agent/agent_client.h"

#include "protocol/limits.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>
#include <map>
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
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_line, id, text)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_answer, request, lines, complete, last, seconds, totals, unstored,
                                   notice)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(command_result, how, code, signal, reason)

namespace {

using json = nlohmann::json;

enum class call { ask, cancel, close, shown, put_back, fetch_stored, password };  // of the front
enum class event { output, status, ended, late, closed, password_needed, left };  // of the agent

template <typename name, typename... argument>
void send(channel& to, name function, const argument&... arguments) {
    std::string frame;
    json::to_cbor(json::array({json(function), json::array({json(arguments)...})}), frame);
    to.send(frame);
}

// Calls a function with the arguments of a frame.
template <typename... argument>
void carry_out(const std::function<void(argument...)>& function, const json& arguments) {
    auto values = arguments.get<std::tuple<std::decay_t<argument>...>>();
    std::apply(function, values);
}

using handler = std::function<void(const json& arguments)>;

template <typename... argument>
handler calling(agent& of, void (agent::*function)(argument...)) {
    return [&of, function](const json& arguments) {
        carry_out(std::function<void(argument...)>(std::bind_front(function, &of)), arguments);
    };
}

// The agent's half of the conversation with its front.
class agent_process {
public:
    agent_process(const std::vector<host_name>& hosts, const agent_options& how, descriptor socket)
        : channel_(std::move(socket)), agent_(hosts, how, events()) {}

    void run() {
        for (bool front_lives = true; front_lives;) {
            pollfd front[] = {{channel_.fd(), channel_.events(), 0}};
            agent_.step(front, agent::clock::time_point::max());
            front_lives = front[0].revents == 0 || channel_.update();
            while (std::optional<std::string> frame = channel_.next()) {
                const json values = json::from_cbor(*frame);
                handlers_.at(values[0])(values[1]);
            }
        }
        agent_.finish([this] {
            send(channel_, event::left);
            channel_.flush();
        });
    }

private:
    agent_listener events() {
        const auto forward = [this](event what) {
            return [this, what](const auto&... values) { send(channel_, what, values...); };
        };
        return {forward(event::output), forward(event::status), forward(event::ended),
                forward(event::late),   forward(event::closed), forward(event::password_needed)};
    }

    channel channel_;
    agent agent_;
    const std::map<call, handler> handlers_ = {
        {call::ask, calling(agent_, &agent::ask)},
        {call::cancel, calling(agent_, &agent::cancel)},
        {call::close, calling(agent_, &agent::close)},
        {call::shown, calling(agent_, &agent::shown)},
        {call::put_back, calling(agent_, &agent::put_back)},
        {call::fetch_stored, calling(agent_, &agent::fetch_stored)},
        {call::password,
         [this](const json& arguments) {
             agent_.password(arguments[0],
                             arguments[2] ? std::optional<std::string>(arguments[1]) : std::nullopt);
         }},
    };
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

agent_client::agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener events)
    : hosts_(std::move(hosts)),
      listener_(std::move(events)),
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

void agent_client::shown(const std::vector<std::uint64_t>& ids) {
    send(channel_, call::shown, ids);
}

void agent_client::put_back(const std::vector<std::uint64_t>& ids) {
    send(channel_, call::put_back, ids);
}

void agent_client::password(std::size_t host, const std::optional<std::string>& text) {
    send(channel_, call::password, host, text.value_or(""), text.has_value());
}

void agent_client::step(std::span<pollfd> others, clock::time_point until) {
    std::vector<pollfd> polled(others.begin(), others.end());
    polled.push_back({channel_.fd(), channel_.events(), 0});
    if (poll(polled.data(), polled.size(), milliseconds_until(until)) < 0) {
        return;  // interrupted by a signal: the caller calls again
    }
    std::copy_n(polled.begin(), others.size(), others.begin());
    const bool lives = polled.back().revents == 0 || channel_.update();
    while (const std::optional<std::string> frame = channel_.next()) {
        handle(*frame);
    }
    if (!lives) {
        throw std::runtime_error("the agent, its process for the connections, has ended");
    }
}

void agent_client::handle(const std::string& frame) {
    const json values = json::from_cbor(frame);
    const json& arguments = values[1];
    switch (values[0].get<event>()) {
        case event::output:
            return carry_out(listener_.output, arguments);
        case event::status:
            return take_status(arguments[0], arguments[1].get<status_answer>());
        case event::ended:
            return carry_out(listener_.ended, arguments);
        case event::late:
            return carry_out(listener_.late, arguments);
        case event::closed:
            closed_[arguments[0]] = true;
            return carry_out(listener_.closed, arguments);
        case event::password_needed:
            return carry_out(listener_.password_needed, arguments);
        case event::left:
            left_ = true;
    }
}

// Messages that come after our last call are not shown, because shown() can no longer be called for them. Other
// processes get them.
void agent_client::take_status(std::size_t host, status_answer answer) const {
    if (is_ended_) {
        std::erase_if(answer.lines, [](const status_line& line) { return line.id != 0; });
    }
    listener_.status(host, answer);
}

void agent_client::finish(std::span<pollfd> others) {
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        close(host);
    }
    const clock::time_point limit = clock::now() + close_timeout;
    const auto step_until = [&](const std::function<bool()>& is_done) {
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
