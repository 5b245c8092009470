#include "agent/agent.h"

#include "protocol/limits.h"
#include "term/text.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::chrono::milliseconds look_again_after{20};
constexpr unsigned tag_shift = 40;

bool is_status(const std::vector<std::string>& words) {
    return words[0] == "status";
}

bool is_quit(const std::vector<std::string>& words) {
    return words.size() == 1 && words[0] == "quit";
}

// Numbers of messages are those of one scheduler. For the listener they have the number of the host in front.
std::uint64_t tagged(std::size_t host, std::uint64_t id) {
    return (static_cast<std::uint64_t>(host) << tag_shift) | id;
}

}  // namespace

void detach() {
    setsid();
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing, fd);
    }
    if (nothing > STDERR_FILENO) {
        close(nothing);
    }
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
        std::signal(signo, SIG_IGN);
    }
}

agent::agent(const std::vector<host_name>& hosts, agent_options how, agent_listener events)
    : how_(std::move(how)),
      listener_(std::move(events)),
      mailbox_(how_.kind, how_.stored == stored_messages::taken),
      pool_(hosts, how_.connect, how_.parallel,
            {[this](std::size_t host, std::string_view text, bool of_status) {
                 on_output(host, text, of_status);
             },
             [this](std::size_t host, const command_result& end) { on_ended(host, end); },
             [this](std::size_t host) { on_late(host); },
             [this](std::size_t host) {
                 if (how_.connect.password_file.empty() && states_.size() == 1) {
                     listener_.password_needed(host);
                 } else {
                     pool_.password(host, std::nullopt);
                 }
             }}) {
    for (const host_name& host : hosts) {
        add_state(host);
    }
}

void agent::add_state(const host_name& host) {
    states_.push_back(std::make_unique<host_state>());
    states_.back()->key = key_of(host);
}

std::size_t agent::add(host_name host) {
    add_state(host);
    return pool_.add(std::move(host));
}

void agent::ask(std::size_t host, std::uint32_t request, std::vector<std::string> words) {
    states_[host]->queue.push_back({request, std::move(words)});
    start_next(host);
}

void agent::start_next(std::size_t host) {
    host_state& state = *states_[host];
    if (state.asking || state.closing || state.queue.empty()) {
        return;
    }
    const command& next = state.queue.front();
    // Room first: connecting already takes what waits for the first client.
    const std::optional<std::string> no_room = mailbox_.reserve(std::min(how_.parallel, pool_.busy() + 1));
    if (no_room && how_.must_store) {
        const std::uint32_t request = next.request;
        state.queue.pop_front();
        return listener_.ended(host, request, {outcome::no_room, *no_room});
    }
    if (!pool_.link(host).is_open() && waits_for_older(state)) {
        waiting_.push_back(host);
        return;
    }
    state.asking = true;
    state.status_text.clear();
    state.asked_at = clock::now();
    pool_.ask(host, is_quit(next.words) ? std::vector<std::string>() : next.words);
}

// An earlier process may hold a connection to a scheduler that did not answer. It gets the same messages as a new one, so
// it is given a moment to end.
bool agent::waits_for_older(host_state& state) {
    if (!held_connection::exists(state.key)) {
        state.wait_until = {};
        return false;
    }
    if (state.wait_until == clock::time_point{}) {
        state.wait_until = clock::now() + lock_timeout;
    }
    return clock::now() < state.wait_until;
}

void agent::cancel(std::size_t host, std::uint32_t request) {
    host_state& state = *states_[host];
    const auto first = state.queue.begin() + (state.asking ? 1 : 0);
    const auto found =
        std::find_if(first, state.queue.end(), [=](const command& c) { return c.request == request; });
    if (found != state.queue.end()) {
        state.queue.erase(found);
        listener_.ended(host, request, {outcome::interrupted});
    }
}

void agent::close(std::size_t host) {
    host_state& state = *states_[host];
    state.queue.erase(state.queue.begin() + (state.asking ? 1 : 0), state.queue.end());
    if (state.closing) {
        return;
    }
    if (pool_.link(host).needs_password()) {
        pool_.password(host, std::nullopt);  // nobody types it any more
    }
    // The command must not be sent any more, but the scheduler may have accepted the connection.
    if (pool_.link(host).is_connecting()) {
        state.closing = state.final_asked = true;
        return pool_.request_final_status(host);
    }
    if (!pool_.link(host).is_open()) {
        pool_.drop(host);
        return on_closed(host);
    }
    state.closing = true;
    if (state.asking) {
        hold(host);
        return listener_.closed(host, 0, true);
    }
    state.final_asked = true;
    pool_.request_final_status(host);
}

void agent::hold(std::size_t host) {
    host_state& state = *states_[host];
    if (state.held == nullptr) {
        state.held = std::make_unique<held_connection>(state.key, pool_.link(host).connected_at());
    }
}

void agent::shown(const std::vector<std::uint64_t>& ids) {
    std::map<std::size_t, std::vector<std::uint64_t>> by_host;
    for (const std::uint64_t id : ids) {
        by_host[id >> tag_shift].push_back(id & ((std::uint64_t{1} << tag_shift) - 1));
    }
    for (const auto& [host, numbers] : by_host) {
        mailbox_.shown(states_[host]->key, numbers);
    }
}

void agent::fetch_stored(std::size_t host) {
    status_answer answer;
    add_stored(host, answer);
    answer.totals = counters_of(states_[host]->key).totals;
    listener_.status(host, answer);
}

void agent::password(std::size_t host, std::optional<std::string> text) {
    pool_.password(host, std::move(text));
}

void agent::on_output(std::size_t host, std::string_view text, bool of_status) {
    host_state& state = *states_[host];
    if (of_status) {
        state.status_text += text;
    } else if (state.asking && !state.final_asked) {
        listener_.output(host, state.queue.front().request, text);
    }
}

void agent::on_late(std::size_t host) {
    host_state& state = *states_[host];
    if (state.asking) {
        listener_.late(host, state.queue.front().request);
    }
}

void agent::on_ended(std::size_t host, command_result end) {
    host_state& state = *states_[host];
    if (!state.asking && !state.final_asked) {
        state.has_answered = false;
        return listener_.ended(host, 0, end);
    }
    const bool asked_status = !state.final_asked && is_status(state.queue.front().words);
    const bool complete = end.how == outcome::over || end.how == outcome::goodbye;
    if (!state.status_text.empty() || (asked_status && complete)) {
        const bool is_valid = deliver_status(host, complete, !asked_status);
        if (asked_status && complete && !is_valid) {
            end = {outcome::bad_answer, "it is no status"};
        }
    }
    if (!pool_.link(host).is_open()) {
        state.has_answered = false;
    }
    if (state.final_asked) {
        return on_closed(host);
    }
    remember_login(host);
    const std::uint32_t request = state.queue.front().request;
    state.queue.pop_front();
    state.asking = false;
    listener_.ended(host, request, end);
    if (state.closing && !state.final_asked) {
        state.final_asked = true;
        pool_.request_final_status(host);
    } else {
        start_next(host);
    }
}

void agent::on_closed(std::size_t host) {
    host_state& state = *states_[host];
    const bool was_held = state.held != nullptr;
    state.held.reset();
    if (state.asking) {
        state.queue.pop_front();
    }
    state.asking = state.closing = state.final_asked = state.has_answered = false;
    // A held connection was reported already.
    if (!was_held) {
        listener_.closed(host, mailbox_.waiting(state.key), false);
    }
    start_next(host);
}

// With one host, the password is asked for before connecting where one is known to be needed: while the operator types it,
// the scheduler would queue messages for a connection that may end without them.
void agent::remember_login(std::size_t host) {
    const std::string& key = states_[host]->key;
    const host_link& link = pool_.link(host);
    // A refused login closes the connection.
    if (states_.size() == 1 && (link.needed_login() || link.is_open()) &&
        counters_of(key).login != link.needed_login()) {
        mailbox::remember_login(key, link.needed_login());
    }
}

// Returns false when the answer is complete but is no status.
bool agent::deliver_status(std::size_t host, bool complete, bool last) {
    host_state& state = *states_[host];
    status_answer answer;
    answer.last = last;
    answer.seconds = std::chrono::duration<double>(clock::now() - state.asked_at).count();
    if (!std::exchange(state.has_answered, true) && !answer.last) {
        add_stored(host, answer);
    }
    bool is_valid = true;
    bool has_date = false;
    each_line(std::exchange(state.status_text, {}), [&](const std::string& line) {
        const status_line_kind kind = kind_of(line);
        is_valid = is_valid && kind != status_line_kind::unknown;
        has_date = has_date || line.starts_with("confdate ");
        answer.lines.push_back({0, line});
    });
    answer.complete = complete && is_valid && has_date;
    store_messages(host, answer);
    listener_.status(host, answer);
    return answer.complete;
}

void agent::add_stored(std::size_t host, status_answer& answer) {
    const std::string& key = states_[host]->key;
    std::vector<stored_message> stored;
    if (how_.stored == stored_messages::taken) {
        stored = mailbox_.take(key);
        // Other names are looked for only with one host: that needs the boxes of all.
        answer.notice = mailbox_.notice(key, states_.size() == 1 ? pool_.link(host).address() : "");
    } else if (how_.stored == stored_messages::looked_at) {
        stored = mailbox_.look(key);
    }
    for (stored_message& m : stored) {
        answer.lines.push_back({tagged(host, m.id), std::move(m.text)});
    }
    answer.stored = stored.size();
}

void agent::store_messages(std::size_t host, status_answer& answer) {
    const std::string& key = states_[host]->key;
    std::vector<std::string> lines;
    std::vector<status_line*> places;
    for (std::size_t i = answer.stored; i < answer.lines.size(); ++i) {
        const status_line_kind kind = kind_of(answer.lines[i].text);
        if (kind == status_line_kind::message || kind == status_line_kind::lost) {
            lines.push_back(answer.lines[i].text);
            places.push_back(&answer.lines[i]);
        }
    }
    if (lines.empty()) {
        answer.totals = counters_of(key).totals;
        return;
    }
    const std::vector<std::uint64_t> ids =
        mailbox_.store(key, pool_.link(host).address(), lines, answer.totals, answer.unstored);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        places[i]->id = tagged(host, ids[i]);
    }
}

void agent::step(std::span<pollfd> others, clock::time_point until) {
    if (!waiting_.empty()) {
        until = std::min(until, clock::now() + look_again_after);
    }
    pool_.step(others, until);
    for (const std::size_t host : std::exchange(waiting_, {})) {
        start_next(host);
    }
}

void agent::finish(const std::function<void()>& on_left) {
    for (std::size_t host = 0; host < states_.size(); ++host) {
        close(host);
    }
    // At once, not behind a host that does not answer: others can show what came from the rest.
    mailbox_.leave();
    if (on_left != nullptr) {
        on_left();
    }
    const auto is_closing = [](const auto& state) { return state->closing; };
    while (std::any_of(states_.begin(), states_.end(), is_closing)) {
        for (std::size_t host = 0; host < states_.size(); ++host) {
            host_state& state = *states_[host];
            if (!state.closing || !pool_.link(host).is_open()) {
                continue;
            }
            hold(host);
            // An older connection to this scheduler, held by another process, gets the same messages.
            if (!state.held->is_held() &&
                held_connection::older_exists(state.key, pool_.link(host).connecting_at())) {
                pool_.drop(host);
                on_closed(host);
            }
        }
        // Nothing more comes when the last one was dropped.
        const bool goes_on = std::any_of(states_.begin(), states_.end(), is_closing);
        step({}, goes_on ? clock::time_point::max() : clock::now());
        mailbox_.leave();
    }
}

}  // namespace client
