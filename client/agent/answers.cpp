// What the agent does with an answer of `status`: it is stored, and the messages of earlier processes come before it.
#include "agent/agent.h"
#include "protocol/status.h"
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

bool agent::deliver(std::size_t host, std::uint32_t request, std::string_view text, bool complete) {
    host_state& state = hosts_[host];
    status_answer answer;
    answer.request = request;
    answer.seconds = std::chrono::duration<double>(clock::now() - state.asked_at).count();
    const bool is_given_up = state.given_up && request == state.queue.front().request;
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
    listener_.status(host, answer);
    return answer.complete;
}

// Forgets that the mailbox was read: it is read for this request, and again for the next `status`.
void agent::fetch_stored(std::size_t host, std::uint32_t request, outcome how) {
    hosts_[host].looked.reset();
    deliver(host, request, "", false);
    hosts_[host].looked.reset();
    listener_.ended(host, request, {how});
}

void agent::settle(const std::vector<std::uint64_t>& ids, bool were_shown) {
    for (const auto& [host, numbers] : by_host(ids)) {
        mailbox_.settle(hosts_[host].key, numbers, were_shown);
        if (!were_shown) {
            hosts_[host].looked.reset();
        }
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

void agent::store_messages(std::size_t host, status_answer& answer) {
    host_state& state = hosts_[host];
    std::vector<std::string> texts;
    std::vector<status_line*> messages;
    for (status_line& line : answer.lines) {
        if (line.is_message && line.id == 0) {
            texts.push_back(line.text);
            messages.push_back(&line);
        }
    }
    // Nobody shows the messages of an answer that was given up, or those before a `restart`. The next answer has them.
    const bool is_shown = !state.given_up && (state.asks_status() || state.final_asked);
    const bool shows = how_.stored == stored_messages::taken && is_shown;
    if (!is_shown && !texts.empty()) {
        state.looked.reset();
    }
    std::uint64_t id =
        mailbox_.store(state.key, state.link.address(), texts, shows, answer.totals, answer.unstored);
    for (status_line* message : messages) {
        message->id = id != 0 ? tagged(host, id++) : 0;
    }
}

}  // namespace client
