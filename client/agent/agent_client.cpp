#include "agent/agent_client.h"

#include "protocol/limits.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

// The agent's half of the conversation with its front.
class agent_process {
public:
    agent_process(const std::vector<host_name>& hosts, const agent_options& how, int socket)
        : channel_(socket), agent_(hosts, how, events()) {}

    void run() {
        for (bool front_lives = true; front_lives;) {
            pollfd front[] = {{channel_.fd(), channel_.events(), 0}};
            agent_.step(front, agent::clock::time_point::max());
            front_lives = front[0].revents == 0 || channel_.update();
            while (std::optional<frame> command = channel_.next()) {
                handle(*command);
            }
        }
        is_finishing_ = true;
        agent_.finish([this] { channel_.send({frame_kind::left, 0, 0, ""}); });
    }

private:
    agent_listener events() {
        const auto number = [](std::size_t host) { return static_cast<std::uint32_t>(host); };
        return {[=, this](std::size_t host, std::uint32_t request, std::string_view text) {
                    channel_.send({frame_kind::output, number(host), request, std::string(text)});
                },
                [=, this](std::size_t host, status_answer& answer) {
                    channel_.send({frame_kind::status, number(host), 0, pack(answer)});
                },
                [=, this](std::size_t host, std::uint32_t request, const command_result& end) {
                    channel_.send({frame_kind::ended, number(host), request, pack(end)});
                },
                [=, this](std::size_t host, std::uint32_t request) {
                    channel_.send({frame_kind::late, number(host), request, ""});
                },
                [=, this](std::size_t host, std::size_t waiting, bool held) {
                    channel_.send({held ? frame_kind::held : frame_kind::closed, number(host),
                                   static_cast<std::uint32_t>(waiting), ""});
                },
                [=, this](std::size_t host) {
                    if (is_finishing_) {
                        agent_.password(host, std::nullopt);
                    }
                    channel_.send({frame_kind::password_needed, number(host), 0, ""});
                }};
    }

    void handle(frame& command) {
        switch (command.kind) {
            case frame_kind::ask:
                return agent_.ask(command.host, command.request, unpack_words(command.body));
            case frame_kind::cancel:
                return agent_.cancel(command.host, command.request);
            case frame_kind::close:
                return agent_.close(command.host);
            case frame_kind::shown:
                return agent_.shown(unpack_numbers(command.body));
            case frame_kind::fetch_stored:
                return agent_.fetch_stored(command.host);
            case frame_kind::password:
                return agent_.password(command.host, std::move(command.body));
            case frame_kind::no_password:
                return agent_.password(command.host, std::nullopt);
            default:
                return;  // events are not for us
        }
    }

    channel channel_;
    agent agent_;
    bool is_finishing_ = false;
};

// Returns the front's socket.
int start_agent(const std::vector<host_name>& hosts, const agent_options& how) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        close(ends[0]);
        detach();
        try {
            agent_process(hosts, how, ends[1]).run();
        } catch (const std::exception&) {
            _exit(1);  // the front reports it
        }
        _exit(0);
    }
    close(ends[1]);
    return ends[0];
}

}  // namespace

agent_client::agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener events)
    : hosts_(std::move(hosts)),
      listener_(std::move(events)),
      channel_(start_agent(hosts_, how)),
      closed_(hosts_.size()) {}

void agent_client::send(const frame& command) {
    channel_.send(command);
    channel_.flush();
}

std::uint32_t agent_client::ask(std::size_t host, const std::vector<std::string>& words) {
    send({frame_kind::ask, static_cast<std::uint32_t>(host), ++last_request_, pack(words)});
    return last_request_;
}

void agent_client::cancel(std::size_t host, std::uint32_t request) {
    send({frame_kind::cancel, static_cast<std::uint32_t>(host), request, ""});
}

void agent_client::close(std::size_t host) {
    closed_[host] = false;
    send({frame_kind::close, static_cast<std::uint32_t>(host), 0, ""});
}

void agent_client::shown(const std::vector<std::uint64_t>& ids) {
    if (!ids.empty()) {
        send({frame_kind::shown, 0, 0, pack(ids)});
    }
}

void agent_client::fetch_stored(std::size_t host) {
    send({frame_kind::fetch_stored, static_cast<std::uint32_t>(host), 0, ""});
}

void agent_client::password(std::size_t host, const std::optional<std::string>& text) {
    send({text ? frame_kind::password : frame_kind::no_password, static_cast<std::uint32_t>(host), 0,
          text.value_or("")});
}

void agent_client::step(std::span<pollfd> others, clock::time_point until) {
    std::vector<pollfd> polled(others.begin(), others.end());
    polled.push_back({channel_.fd(), channel_.events(), 0});
    int wait = -1;
    if (until != clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now()).count();
        wait = static_cast<int>(std::clamp<decltype(left)>(left, 0, 3600 * 1000));
    }
    if (poll(polled.data(), polled.size(), wait) < 0) {
        return;  // interrupted by a signal: the caller calls again
    }
    std::copy_n(polled.begin(), others.size(), others.begin());
    const bool lives = polled.back().revents == 0 || channel_.update();
    while (const std::optional<frame> event = channel_.next()) {
        handle(*event);
    }
    if (!lives) {
        throw std::runtime_error("the agent, its process for the connections, has ended");
    }
}

void agent_client::handle(const frame& event) {
    switch (event.kind) {
        case frame_kind::output:
            return listener_.output(event.host, event.request, event.body);
        case frame_kind::status: {
            status_answer answer = unpack_status(event.body);
            return listener_.status(event.host, answer);
        }
        case frame_kind::ended:
            return listener_.ended(event.host, event.request, unpack_result(event.body));
        case frame_kind::late:
            return listener_.late(event.host, event.request);
        case frame_kind::closed:
        case frame_kind::held:
            closed_[event.host] = true;
            return listener_.closed(event.host, event.request, event.kind == frame_kind::held);
        case frame_kind::left:
            left_ = true;
            return;
        case frame_kind::password_needed:
            return listener_.password_needed(event.host);
        default:
            return;  // commands are not for us
    }
}

void agent_client::finish(std::span<pollfd> others) {
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        close(host);
    }
    const clock::time_point limit = clock::now() + close_timeout;
    const auto is_interrupted = [](const pollfd& p) { return p.revents != 0; };
    while (std::find(closed_.begin(), closed_.end(), false) != closed_.end() && clock::now() < limit &&
           std::none_of(others.begin(), others.end(), is_interrupted)) {
        step(others, limit);
    }
    channel_.end();
    while (!left_ && clock::now() < limit && std::none_of(others.begin(), others.end(), is_interrupted)) {
        step(others, limit);
    }
}

}  // namespace client
