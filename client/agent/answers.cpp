// What the agent does with an answer of `status`: it is stored, and the messages of earlier processes come before it.
#include "agent/agent.h"
#include "term/text.h"

#include <map>
#include <utility>

namespace client {

namespace {

constexpr unsigned tag_shift = 40;

// The numbers of messages are unique for one scheduler only, so the listener gets them with the number of the host in
// front.
std::uint64_t tagged(std::size_t host, std::uint64_t id) {
    return (static_cast<std::uint64_t>(host) << tag_shift) | id;
}

std::map<std::size_t, std::vector<std::uint64_t>> by_host(const std::vector<std::uint64_t>& ids) {
    std::map<std::size_t, std::vector<std::uint64_t>> sorted;
    for (const std::uint64_t id : ids) {
        sorted[id >> tag_shift].push_back(id & ((std::uint64_t{1} << tag_shift) - 1));
    }
    return sorted;
}

}  // namespace

// Returns false when the answer is complete but is no status.
bool agent::deliver_status(std::size_t host, bool complete) {
    host_state& state = hosts_[host];
    status_answer answer;
    answer.last = !state.asks_status();
    answer.request = answer.last ? 0 : state.queue.front().request;
    answer.seconds = std::chrono::duration<double>(clock::now() - state.asked_at).count();
    if (!answer.last && !state.given_up && state.looked != state.link.connected_at()) {
        add_stored(host, answer);
    }
    bool is_valid = true;
    bool has_date = false;
    std::vector<std::size_t> messages;  // their indexes in answer.lines
    each_line(std::exchange(state.status_text, {}), [&](const std::string& line) {
        const status_line_kind kind = kind_of(line);
        is_valid = is_valid && kind != status_line_kind::unknown;
        has_date = has_date || line.starts_with("confdate ");
        if (kind == status_line_kind::message || kind == status_line_kind::lost) {
            messages.push_back(answer.lines.size());
        }
        answer.lines.push_back({0, line});
    });
    answer.complete = complete && is_valid && has_date;
    store_messages(host, messages, answer);
    listener_.status(host, answer);
    return answer.complete;
}

void agent::deliver_stored(std::size_t host, std::uint32_t request) {
    status_answer answer;
    answer.request = request;
    add_stored(host, answer);
    answer.totals = counters_of(hosts_[host].key).totals;
    listener_.status(host, answer);
}

// Without an answer from the scheduler, the listener at least gets the messages that were stored before, once in an
// outage.
void agent::deliver_instead(std::size_t host) {
    const host_state& state = hosts_[host];
    if (how_.stored == stored_messages::taken && !state.given_up &&
        state.looked != state.link.connected_at()) {
        deliver_stored(host, state.queue.front().request);
    }
}

void agent::fetch_stored(std::size_t host, std::uint32_t request, outcome how) {
    deliver_stored(host, request);
    hosts_[host].looked.reset();
    listener_.ended(host, request, {how});
}

void agent::shown(const std::vector<std::uint64_t>& ids) {
    for (const auto& [host, numbers] : by_host(ids)) {
        mailbox_.shown(hosts_[host].key, numbers);
    }
}

void agent::put_back(const std::vector<std::uint64_t>& ids) {
    for (const auto& [host, numbers] : by_host(ids)) {
        mailbox_.put_back(hosts_[host].key, numbers);
        hosts_[host].looked.reset();
    }
}

void agent::add_stored(std::size_t host, status_answer& answer) {
    host_state& state = hosts_[host];
    state.looked = state.link.connected_at();
    std::vector<status_line> stored;
    if (how_.stored == stored_messages::taken) {
        stored = mailbox_.take(state.key);
        // Looked up for one host only, because the search for other names reads the boxes of all schedulers.
        answer.notice = mailbox_.notice(state.key, hosts_.size() == 1 ? state.link.address() : "");
    } else if (how_.stored == stored_messages::looked_at) {
        stored = mailbox_.look(state.key);
    }
    for (status_line& m : stored) {
        answer.lines.push_back({tagged(host, m.id), std::move(m.text)});
    }
}

void agent::store_messages(std::size_t host, const std::vector<std::size_t>& messages,
                           status_answer& answer) {
    host_state& state = hosts_[host];
    std::vector<std::string> lines;
    lines.reserve(messages.size());
    for (const std::size_t at : messages) {
        lines.push_back(answer.lines[at].text);
    }
    // Nobody shows the messages of an answer that was given up, or those before a `restart`. The next answer has them.
    const bool is_shown = !state.given_up && (state.asks_status() || state.final_asked);
    const bool shows = how_.stored == stored_messages::taken && is_shown;
    if (!is_shown && !lines.empty()) {
        state.looked.reset();
    }
    std::uint64_t id =
        mailbox_.store(state.key, state.link.address(), lines, shows, answer.totals, answer.unstored);
    for (std::size_t i = 0; id != 0 && i < messages.size(); ++i) {
        answer.lines[messages[i]].id = tagged(host, id++);
    }
}

}  // namespace client
