#include "agent/agent.h"

#include "protocol/limits.h"

#include <algorithm>
#include <limits>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <system_error>
#include <utility>

namespace {

constexpr std::chrono::milliseconds look_again_after{20};
constexpr rlim_t other_descriptors = 64;  // for standard streams, files, and look-ups that have been given up

// How many of the wanted connections the limit for descriptors allows. Each host may need two more for its files.
std::size_t allowed_connections(std::size_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return wanted;
    }
    const rlim_t free = limit.rlim_cur > other_descriptors ? limit.rlim_cur - other_descriptors : 1;
    return std::clamp<std::size_t>(wanted, 1, std::max<rlim_t>(free / 3, 1));
}

// Returns the tag of an event of epoll: the host, and its descriptor when its events were requested.
std::uint64_t tag_of(std::size_t host, int fd) {
    return static_cast<std::uint64_t>(host) << 32 | static_cast<std::uint32_t>(fd);
}

// It changes nothing at the scheduler.
bool is_question(const std::vector<std::string>& words) {
    return words[0] == "status" || words[0] == "show" || words[0] == "debug" ||
           (words[0] == "modcntl" && words.size() == 1);
}

}  // namespace

agent::agent(const std::vector<host_name>& hosts, agent_options how, channel front)
    : how_(std::move(how)),
      front_(std::move(front)),
      parallel_(allowed_connections(how_.parallel)),
      most_open_(allowed_connections(std::numeric_limits<std::size_t>::max())),
      module_silence_(hosts.size() == 1 ? std::chrono::seconds(0) : default_module_silence),
      passwords_(how_.connect.password_file),
      mailbox_(how_.kind),
      events_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!events_.is_open()) {
        throw std::system_error(errno, std::generic_category(), "epoll");
    }
    std::for_each(hosts.begin(), hosts.end(), [this](const host_name& host) { add(host); });
}

void agent::run() {
    // In the order of `to_agent`.
    static constexpr void (*calls[])(agent&, const nlohmann::json&) = {
        carry_out<&agent::add>,     carry_out<&agent::ask>,    carry_out<&agent::cancel>,
        carry_out<&agent::close>,   carry_out<&agent::settle>, carry_out<&agent::fetch_stored>,
        carry_out<&agent::password>};
    for (bool front_lives = true; front_lives;) {
        pollfd front[] = {{front_.fd(), front_.events(), 0}};
        // A front that does not read, because it was stopped, must not fill the memory: then the hosts wait, too.
        if (front_.waiting() > max_unread) {
            poll(front, 1, -1);
        } else {
            step(front);
        }
        front_lives = front[0].revents == 0 || front_.update();
        while (const std::optional<nlohmann::json> call = front_.next()) {
            calls[(*call)[0].get<std::size_t>()](*this, (*call)[1]);
        }
    }
    finish();
}

void agent::add(const host_name& host) { hosts_.emplace_back(host, how_.connect, passwords_, module_silence_); }

void agent::ask(std::size_t host, std::uint32_t request, std::vector<std::string> words) {
    hosts_[host].queue.push_back({request, std::move(words)});
    schedule(host);
}

void agent::schedule(std::size_t host) {
    if (!std::exchange(hosts_[host].is_ready, true)) {
        ready_.push_back(host);
    }
}

// Starts the commands that may run now. Returns the time until which the next step may wait.
agent::clock::time_point agent::start_ready() {
    if (ready_.empty()) {
        return clock::time_point::max();
    }
    const clock::time_point now = clock::now();
    auto running = static_cast<std::size_t>(std::count_if(
        active_.begin(), active_.end(), [&](std::size_t host) { return takes_place(hosts_[host], now); }));
    for (std::size_t left = ready_.size(); left > 0 && running < parallel_; --left) {
        const std::size_t host = ready_.front();
        host_state& state = hosts_[host];
        ready_.pop_front();
        state.is_ready = false;
        if (state.current || state.closing || state.queue.empty()) {
            continue;
        }
        if (!state.link.is_open() && (waits_for_room() || waits_for_older(state))) {
            schedule(host);
            continue;
        }
        start(host, std::min(parallel_, running + left));
        running += state.current ? 1 : 0;  // else it has ended at once
    }
    return ready_.empty() ? clock::time_point::max() : now + look_again_after;
}

// A question that has no answer yet gives its place to the next host after a moment, so that many silent hosts do not
// delay the others. Other commands keep theirs: the operator limits at how many hosts they run at once.
bool agent::takes_place(const host_state& state, clock::time_point now) const {
    if (!state.link.is_busy() || state.link.is_late() || state.closing) {
        return false;
    }
    const bool is_old = now - state.asked_at >= place_time && active_.size() < most_open_;
    return !is_old || !is_question(state.current->words);
}

// Whether a new connection must wait, because all descriptors are in use. Closes an idle connection to make room.
bool agent::waits_for_room() {
    // Late ones do not count: they may stay for ever, and some of the descriptors are left for that.
    const auto late =
        std::count_if(active_.begin(), active_.end(), [this](std::size_t host) { return hosts_[host].link.is_late(); });
    if (active_.size() < most_open_ + static_cast<std::size_t>(late)) {
        return false;
    }
    const auto idle = std::find_if(active_.begin(), active_.end(), [this](std::size_t host) {
        return !hosts_[host].link.is_busy() && hosts_[host].queue.empty();
    });
    if (idle != active_.end()) {
        close(*idle);
    }
    return true;
}

// An earlier process may hold a connection to a scheduler that did not answer. It gets the same messages as a new one,
// so it is given a moment to end.
bool agent::waits_for_older(host_state& state) {
    const clock::time_point now = clock::now();
    if (now < state.look_at) {
        return true;  // events of other hosts come often; not each is worth a look
    }
    if (!is_held(state.key)) {
        return false;
    }
    std::optional<clock::time_point>& until = state.queue.front().waits_until;
    until = until.value_or(now + lock_timeout);
    state.look_at = now + look_again_after;
    return now < *until;
}

// Starts the first command of a host. answers: how many answers are under way or about to be.
void agent::start(std::size_t host, std::size_t answers) {
    host_state& state = hosts_[host];
    command first = std::move(state.queue.front());
    state.queue.pop_front();
    // Reserve room first: the connection alone already gets the messages that wait for the first client.
    const std::optional<std::string> no_room = mailbox_.reserve(answers);
    if (no_room && how_.must_store) {
        schedule(host);
        return front_.send(to_front::ended, host, first.request, command_result(outcome::no_room, *no_room));
    }
    state.asked_at = clock::now();
    begin(host, std::move(first));
}

void agent::begin(std::size_t host, command next) {
    host_state& state = hosts_[host];
    active_.insert(host);
    const bool quits = next.words.size() == 1 && next.words[0] == "quit";
    state.link.ask(quits ? std::vector<std::string>() : next.words);
    state.current = std::move(next);
    update(host);
}

void agent::cancel(std::size_t host, std::uint32_t request) {
    host_state& state = hosts_[host];
    if (state.current && state.current->request == request) {
        state.current->given_up = true;
    } else if (std::erase_if(state.queue, [=](const command& c) { return c.request == request; }) != 0) {
        front_.send(to_front::ended, host, request, command_result(outcome::interrupted));
    }
}

void agent::password(std::size_t host, const std::string& text, bool is_given) {
    if (is_given) {
        passwords_.set(text);
    }
    if (hosts_[host].link.needs_password()) {
        hosts_[host].link.log_in(is_given ? "" : text.empty() ? "there is no --password-file" : text);
        update(host);  // without a password the command has ended
    }
}

// Handles what has happened at the link of a host.
void agent::update(std::size_t host) {
    host_state& state = hosts_[host];
    const host_link::news news = state.link.take_news();
    watch(host);
    // Of the command itself, or of the `status` that is sent before these words.
    if (state.is("status") || state.is_final() || state.is("restart") || state.is("quit")) {
        state.status_text += news.text;
    } else if (!news.text.empty() && state.current && !state.current->given_up && !is_finishing_) {
        front_.send(to_front::output, host, state.current->request, news.text);
    }
    if (!state.link.is_open() && !state.link.is_busy()) {
        active_.erase(host);
    }
    if (news.end && news.end->how != outcome::no_answer) {
        on_ended(host, *news.end);
    } else if (news.end && state.current && !state.is_final()) {
        on_late(host);
    } else if (state.link.needs_password() && hosts_.size() == 1 && !is_finishing_) {
        front_.send(to_front::password_needed, host);
    } else if (state.link.needs_password()) {
        password(host, "", false);
    }
}

void agent::on_ended(std::size_t host, command_result end) {
    host_state& state = hosts_[host];
    const std::uint32_t request = state.current ? state.current->request : 0;
    const bool asked_status = state.is("status");
    const bool complete = end.how == outcome::over || end.how == outcome::goodbye;
    if (const std::string text = std::exchange(state.status_text, {}); asked_status || !text.empty()) {
        if (!deliver(host, asked_status ? request : 0, text, complete) && asked_status && complete) {
            end = {outcome::bad_answer, "it is no status"};
        }
    }
    if (state.is_final()) {
        return on_closed(host);
    }
    remember_login(state);
    front_.send(to_front::ended, host, request, end);
    if (!std::exchange(state.current, std::nullopt)) {
        return;  // an idle connection was closed
    }
    if (!state.closing) {
        schedule(host);
    } else if (state.link.is_open()) {
        begin(host, {});
    } else {
        on_closed(host);
    }
}

void agent::on_late(std::size_t host) {
    const host_state& state = hosts_[host];
    const std::uint32_t request = state.current->request;
    if (state.is("status")) {
        deliver(host, request, "", false);
    }
    front_.send(to_front::ended, host, request, command_result(outcome::no_answer));
}

// With one host, the password is asked for before connecting where one is known to be needed: while the operator types
// it, the scheduler would queue messages for a connection that may end without them.
void agent::remember_login(const host_state& state) {
    const host_link& link = state.link;
    // A refused login closes the connection.
    if (hosts_.size() == 1 && (link.needed_login() || link.is_open()) &&
        counters_of(state.key).login != link.needed_login()) {
        mailbox::remember_login(state.key, link.needed_login());
    }
}

// Waits for an event of the hosts or on the descriptors of `others`.
void agent::step(std::span<pollfd> others) {
    const clock::time_point until = start_ready();  // which may lower first_deadline_
    if (wait_for(events_.get(), POLLIN, others, std::min(until, first_deadline_))) {
        handle_ready();
    }
    expire_late();
}

// Requests the events that the link needs now. When the system refuses, the time limit of the command ends the wait.
void agent::watch(std::size_t host) {
    const host_link& link = hosts_[host].link;
    first_deadline_ = std::min(first_deadline_, link.deadline());
    epoll_event wanted{};
    wanted.events = static_cast<std::uint32_t>(link.events());
    wanted.data.u64 = tag_of(host, link.fd());
    if (link.fd() >= 0 && epoll_ctl(events_.get(), EPOLL_CTL_MOD, link.fd(), &wanted) != 0) {
        epoll_ctl(events_.get(), EPOLL_CTL_ADD, link.fd(), &wanted);
    }
}

void agent::handle_ready() {
    // One call takes the events of all busy links, so that an answer that has come does not count as late. Look-ups
    // that were given up may need more room; what is left comes with the next call.
    std::vector<epoll_event> ready(active_.size() + 16);
    const int count = epoll_wait(events_.get(), ready.data(), static_cast<int>(ready.size()), 0);
    ready.resize(static_cast<std::size_t>(std::max(count, 0)));
    for (const epoll_event& event : ready) {
        const std::size_t host = event.data.u64 >> 32;
        if (event.data.u64 == tag_of(host, hosts_[host].link.fd())) {
            // Otherwise the link has another descriptor since the wait.
            hosts_[host].link.on_ready();
            update(host);
        }
    }
}

void agent::expire_late() {
    const clock::time_point now = clock::now();
    if (first_deadline_ > now) {
        return;
    }
    first_deadline_ = clock::time_point::max();
    // A copy: a link that is closed leaves the set.
    for (const std::size_t host : std::vector<std::size_t>(active_.begin(), active_.end())) {
        host_link& link = hosts_[host].link;
        if (link.deadline() > now) {
            first_deadline_ = std::min(first_deadline_, link.deadline());
            continue;
        }
        link.expire();
        update(host);
    }
}
