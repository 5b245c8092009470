// The front's side of its agent. The agent is a child process in a session of its own, so it finishes its work
// whatever becomes of this process: its end, by any signal, closes the socket between them.
#pragma once

#include "agent/agent.h"
#include "agent/channel.h"

#include <nlohmann/json_fwd.hpp>

namespace client {

class agent_client {
public:
    using clock = agent::clock;

    // Starts the agent. Call before there are threads, and before anything is written to stdio's buffers. Throws
    // std::system_error. The functions are those of `agent`, with the same meaning; each is sent to the agent, and its
    // events come in step(). events must outlive this.
    agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener& events);

    // These return the number of the request.
    std::uint32_t ask(std::size_t host, const std::vector<std::string>& words);
    std::uint32_t fetch_stored(std::size_t host, outcome how);

    void cancel(std::size_t host, std::uint32_t request);
    void close(std::size_t host);
    void shown(const std::vector<std::uint64_t>& ids) { settle(ids, true); }
    void put_back(const std::vector<std::uint64_t>& ids) { settle(ids, false); }
    void password(std::size_t host, const std::optional<std::string>& text);

    const std::vector<host_name>& hosts() const { return hosts_; }

    // The descriptor to poll, for a caller that has its own loop and then calls step() with a time in the past.
    int fd() const { return channel_.fd(); }

    // As that of `agent`. Throws std::runtime_error when the agent has ended.
    void step(std::span<pollfd> others, clock::time_point until);

    // The last call. Closes all connections and waits until each is closed or held, and until what was not shown is
    // left to other processes; at most close_timeout, less when one of `others` is readable. Events are still handed to
    // the listener. The agent finishes what is left.
    void finish(std::span<pollfd> others = {});

private:
    void settle(const std::vector<std::uint64_t>& ids, bool were_shown);
    void handle(const nlohmann::json& frame);

    const std::vector<host_name> hosts_;
    agent_listener& listener_;
    channel channel_;
    std::uint32_t last_request_ = 0;
    std::vector<bool> closed_;  // or held, since its last close()
    bool is_ended_ = false;     // the agent gets no more calls
    bool left_ = false;
};

}  // namespace client
