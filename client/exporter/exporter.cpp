#include "exporter/http_server.h"
#include "monitor/collect.h"
#include "monitor/exposition.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "protocol/limits.h"
#include "run/json.h"
#include "term/signals.h"
#include "watch/poller.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unordered_map>

namespace {

constexpr const char* ending_text = "the exporter ends\n";
constexpr const char* landing_page =
    "<!DOCTYPE html><html lang=\"en\"><head><title>sched exporter</title></head><body><h1>sched exporter</h1><ul>"
    "<li>/metrics?target=HOST:PORT: the metrics of a scheduler</li>"
    "<li><a href=\"/metrics\">/metrics</a>: of this exporter</li>"
    "<li><a href=\"/targets\">/targets</a>: the hosts file, for the discovery over HTTP</li>"
    "<li><a href=\"/-/healthy\">/-/healthy</a></li></ul></body></html>\n";

// Returns the address and the port of "ADDRESS:PORT", ":PORT" or "PORT"; an IPv6 address is in brackets.
std::pair<std::string, std::string> split_address(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    return {host.empty() ? "127.0.0.1" : host, text.substr(colon == std::string::npos ? 0 : colon + 1)};
}

// The hosts file in the form of Prometheus' discovery over HTTP.
std::string discovery(const std::vector<host_name>& hosts) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const host_name& host : hosts) {
        list.push_back({{"targets", {host.name + ":" + std::to_string(host.port)}}, {"labels", host.tags}});
    }
    return json_text(list);
}

agent_options exporting(const settings& chosen) {
    agent_options how = asking(chosen);
    how.stored = stored_messages::left;
    how.parallel = std::numeric_limits<std::size_t>::max();  // a silent scheduler must not delay another
    return how;
}

class exporter : private agent_listener {
    using clock = agent_client::clock;

public:
    // listed: the hosts of --hosts or -H; empty when any may be asked.
    exporter(const settings& chosen, const std::vector<host_name>& listed, const std::string& address,
             const std::string& port)
        : chosen_(chosen),
          any_port_(address.starts_with("127.") || address == "::1" || address == "localhost"),
          limit_(chosen.connect.timeout != 0 ? std::chrono::seconds(chosen.connect.timeout) : scrape_timeout),
          pages_{{"/", {.type = "text/html; charset=utf-8", .text = landing_page}},
                 {"/-/healthy", {.text = "OK\n"}},
                 {"/targets", {.type = "application/json", .text = discovery(listed)}}},
          agent_({}, exporting(chosen), *this),
          server_(address, port, limit_ + http_lifetime, std::bind_front(&exporter::handle, this)) {
        std::for_each(listed.begin(), listed.end(), [this](const host_name& host) { add(host); });
    }

    // The server must not end before it has answered all requests, also after an exception. The agent closes the
    // connections. It waits for the silent schedulers, because they may have handed messages to us.
    ~exporter() {
        ending_ = true;
        for (target& of : targets_) {
            for (http_request* request : std::exchange(of.waiting, {})) {
                http_server::answer(*request, {.status = 503, .text = ending_text});
            }
        }
        server_.step();
    }

    // Serves until a signal. Returns the exit code. Throws std::runtime_error when the agent has ended.
    int run() {
        signal_watch signals;
        pollfd others[] = {{server_.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        for (;;) {
            give_up_silent();  // before the server's step, which sends the answers
            const clock::time_point due = server_.step();
            agent_.step(others, begun_.empty() ? due : std::min(due, begun_.front().first + limit_));
            if (others[1].revents != 0 && signals.take()) {
                return 0;
            }
        }
    }

private:
    // One scheduler; its index is its number at the agent.
    struct target {
        std::optional<inquiry> work;  // while it is being asked
        clock::time_point begin;      // when that began
        std::vector<http_request*> waiting;
    };

    void ask(std::size_t number) { agent_.ask(number, targets_[number].work->words()); }

    std::size_t add(const host_name& host) {
        agent_.add(host);
        targets_.emplace_back();
        return numbers_.emplace(key_of(host), targets_.size() - 1).first->second;
    }

    std::optional<http_reply> handle(http_request& request) {
        if (ending_) {
            return http_reply{.status = 503, .text = ending_text};
        }
        if (const auto page = pages_.find(request.path); page != pages_.end()) {
            return page->second;
        }
        if (request.path != "/metrics") {
            return http_reply{.status = 404, .text = "not found\n"};
        }
        if (request.targets.empty()) {
            return http_reply{.type = exposition_type, .text = expose_exporter(errors_)};
        }
        std::size_t number = 0;
        try {
            number = target_of(request);
        } catch (const std::runtime_error& problem) {
            return http_reply{.status = 400, .text = problem.what() + std::string("\n")};
        }
        return scrape(request, number);
    }

    // Returns the number of the target. Throws std::runtime_error when it may not be asked.
    std::size_t target_of(const http_request& request) {
        const std::string& text = request.targets.front();
        constexpr const char* allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:";
        // A name has at most 255 characters, and a port six with its colon.
        if (request.targets.size() != 1 || text.empty() || text.size() > 255 + 6 ||
            text.find_first_not_of(allowed) != std::string::npos || text.starts_with('-')) {
            throw std::runtime_error("expected: /metrics?target=HOST:PORT");
        }
        const host_name host = parse_hosts(text, chosen_.port).front();
        const auto known = numbers_.find(key_of(host));
        if (known != numbers_.end()) {
            return known->second;
        }
        if (chosen_.several) {
            throw std::runtime_error("only targets of the hosts file may be asked");
        }
        if (!any_port_ && host.port != chosen_.port) {
            throw std::runtime_error("only port " + std::to_string(chosen_.port) + " may be asked");
        }
        if (targets_.size() == max_targets) {
            throw std::runtime_error("too many targets");
        }
        return add(host);
    }

    std::optional<http_reply> scrape(http_request& request, std::size_t number) {
        target& of = targets_[number];
        if (const std::optional<snapshot> followed = followed_state(agent_.host(number))) {
            return reply_with(*followed);
        }
        if (of.work && of.work->known.failure != 0) {
            return reply_with(of.work->known);  // give_up_silent() has given it up
        }
        of.waiting.push_back(&request);
        if (!of.work) {
            of.work.emplace(agent_.host(number)).begin(true);
            of.begin = clock::now();
            begun_.emplace_back(of.begin, number);
            ask(number);
        }
        return std::nullopt;
    }

    void output(std::size_t number, std::uint32_t /*request*/, const std::string& text) override {
        targets_[number].work->output(text);
    }

    void status(std::size_t number, const status_answer& answer) override {
        report_unstored(answer);
        if (targets_[number].work) {  // else it is the last status of an idle connection
            targets_[number].work->status(answer);
        }
    }

    void password_needed(std::size_t number) override { agent_.refuse_password(number); }

    void ended(std::size_t number, std::uint32_t request, const command_result& end) override {
        target& of = targets_[number];
        // Request 0: an idle connection was closed; the next question makes a new one. When an answer is late,
        // give_up_silent() has answered its requests.
        if (request == 0 || !of.work || end.how == outcome::no_answer) {
            return;
        }
        if (of.work->ended(end)) {
            return ask(number);
        }
        if (end.how != outcome::over) {
            of.work->failed(end);
        }
        answer_waiting(of);
        of.work.reset();
        agent_.close(number);
    }

    http_reply reply_with(const snapshot& known) {
        if (known.is_own_fault()) {
            ++errors_;
            return {.status = 500, .text = known.problem + "\n"};
        }
        return {.type = exposition_type, .text = expose(known, destination::http)};
    }

    void answer_waiting(target& of) {
        for (http_request* request : std::exchange(of.waiting, {})) {
            http_server::answer(*request, reply_with(of.work->known));
        }
    }

    void give_up_silent() {
        for (; !begun_.empty(); begun_.pop_front()) {
            const auto [begin, number] = begun_.front();
            if (!targets_[number].work || targets_[number].begin != begin) {
                continue;  // it has answered
            }
            if (begin + limit_ > clock::now()) {
                return;
            }
            targets_[number].work->failed(outcome::no_answer);
            answer_waiting(targets_[number]);
        }
    }

    const settings& chosen_;
    const bool any_port_;  // false: only -p may be asked, so that nobody searches our network for open ports
    const std::chrono::seconds limit_;
    const std::map<std::string, http_reply> pages_;  // those that never change
    std::deque<target> targets_;
    std::unordered_map<std::string, std::size_t> numbers_;         // by key_of
    std::deque<std::pair<clock::time_point, std::size_t>> begun_;  // requests, oldest first
    bool ending_ = false;
    unsigned long errors_ = 0;
    agent_client agent_;  // before the server: it raises the limit for descriptors, on which the server's depends
    http_server server_;
};

}  // namespace

int serve_metrics(const settings& chosen, char**) {
    const auto [address, port] = split_address(chosen.listen);
    const auto hosts = chosen.hosts_file.empty() ? chosen.hosts : read_hosts(chosen.hosts_file, chosen.port);
    return exporter(chosen, chosen.several ? hosts : std::vector<host_name>(), address, port).run();
}
