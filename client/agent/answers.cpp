// What the agent does with an answer of `status`: it is stored, and the messages of earlier processes come before it.
#include "agent/agent.h"
#include "protocol/status.h"
#include "term/text.h"

#include <map>

namespace {

constexpr unsigned tag_shift = 40;

// The numbers of messages are unique for one scheduler only, so the front gets them with the number of the host in
// front.
std::uint64_t tagged(std::size_t host, std::uint64_t id) {
    return (static_cast<std::uint64_t>(host) << tag_shift) | id;
}

}  // namespace

bool agent::deliver(std::size_t host, std::uint32_t request, std::string_view text, bool complete) {
    host_state& state = hosts_[host];
    status_answer answer;
    answer.request = request;
    answer.seconds = std::chrono::duration<double>(clock::now() - state.asked_at).count();
    const bool is_given_up = state.current && state.current->given_up && state.current->request == request;
    if (request != 0 && !is_given_up && state.looked != state.link.connected_at()) {
        add_stored(host, answer);
    }
    bool is_valid = true;
    bool has_date = false;
    each_line(text, [&](const std::string& line) {
        const status_report parsed = parse_status(line);
        const bool is_message = !parsed.messages.empty() || parsed.lost != 0;
        is_valid = is_valid && (is_message || !parsed.conditions.empty());
        has_date = has_date || line.starts_with("confdate ");
        answer.lines.push_back({0, line, is_message});
    });
    answer.complete = complete && is_valid && has_date;
    store_messages(host, answer);
    front_.send(to_front::status, host, answer);
    return answer.complete;
}

void agent::fetch_stored(std::size_t host, std::uint32_t request, const command_result& end) {
    // The mailbox is read for this request, also when it was read for the last connection.
    hosts_[host].looked.reset();
    deliver(host, request, "", false);
    front_.send(to_front::ended, host, request, end);
}

void agent::settle(const std::vector<std::uint64_t>& ids, bool were_shown) {
    std::map<std::size_t, std::vector<std::uint64_t>> by_host;
    for (const std::uint64_t id : ids) {
        if (id != 0) {
            by_host[id >> tag_shift].push_back(id & ((std::uint64_t{1} << tag_shift) - 1));
        }
    }
    for (const auto& [host, numbers] : by_host) {
        mailbox_.settle(hosts_[host].key, numbers, were_shown);
        if (!were_shown) {
            hosts_[host].looked.reset();
        }
    }
}

void agent::add_stored(std::size_t host, status_answer& answer) {
    host_state& state = hosts_[host];
    state.looked = state.link.connected_at();
    if (how_.stored == stored_messages::taken) {
        answer.lines = mailbox_.take(state.key);
        // Looked up for one host only, because the search for other names reads the boxes of all schedulers.
        answer.notice = mailbox_.notice(state.key, hosts_.size() == 1 ? state.link.address() : "");
    } else if (how_.stored == stored_messages::looked_at) {
        answer.lines = mailbox_.look(state.key);
    }
}

void agent::store_messages(std::size_t host, status_answer& answer) {
    host_state& state = hosts_[host];
    // Nobody shows the messages of an answer that was given up, or those before a `restart`. The next answer has them.
    const bool is_shown = state.is_final() || (state.is("status") && !state.current->given_up);
    if (!is_shown) {
        state.looked.reset();
    }
    const bool shows = is_shown && how_.stored == stored_messages::taken;
    answer.unstored = mailbox_.store(state.key, state.link.address(), answer.lines, shows);
    answer.totals = counters_of(state.key).totals;
    for (status_line& line : answer.lines) {
        line.id = line.id != 0 ? tagged(host, line.id) : 0;
    }
}
