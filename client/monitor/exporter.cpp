#include "monitor/collect.h"
#include "monitor/exposition.h"
#include "monitor/http_server.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "protocol/limits.h"
#include "run/json.h"
#include "term/signals.h"
#include "watch/poller.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>
#include <netdb.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unordered_map>

namespace client {

namespace {

using clock = agent::clock;

constexpr std::size_t longest_target = 255 + 6;  // a name and a port

constexpr const char* ending_text = "the exporter ends\n";
constexpr const char* landing_page =
    "<!DOCTYPE html><html lang=\"en\"><head><title>sched exporter</title></head><body><h1>sched "
    "exporter</h1><ul>"
    "<li>/metrics?target=HOST:PORT: the metrics of a scheduler</li>"
    "<li><a href=\"/metrics\">/metrics</a>: of this exporter</li>"
    "<li><a href=\"/targets\">/targets</a>: the hosts file, for the discovery over HTTP</li>"
    "<li><a href=\"/-/healthy\">/-/healthy</a></li></ul></body></html>\n";

// Parses "ADDRESS:PORT", ":PORT" or "PORT"; an IPv6 address is in brackets. Returns a listening socket. host: the
// address. Throws std::runtime_error, which ends the program.
int listen_at(const std::string& text, std::string& host) {
    const std::string fault = "cannot listen at " + text + ": ";
    const std::size_t colon = text.rfind(':');
    const std::string port = text.substr(colon == std::string::npos ? 0 : colon + 1);
    host = colon == std::string::npos ? "" : text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    host = host.empty() ? "127.0.0.1" : host;
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (error != std::errc() || end != port.data() + port.size() || number == 0) {
        throw std::runtime_error(fault + "expected ADDRESS:PORT");
    }
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (const int unknown = getaddrinfo(host.c_str(), port.c_str(), &hints, &list); unknown != 0) {
        throw std::runtime_error(fault + gai_strerror(unknown));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(list, freeaddrinfo);
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;  // a new server may start while connections of the last one are closing
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, SOMAXCONN) != 0) {
        throw std::runtime_error(fault + std::generic_category().message(errno));
    }
    return fd;
}

// The hosts file in the form of Prometheus' discovery over HTTP.
std::string discovery(const std::vector<host_name>& hosts) {
    using json = nlohmann::ordered_json;
    json list = json::array();
    for (const host_name& host : hosts) {
        json labels = json::object();
        std::istringstream tags(host.tags);
        for (std::string tag; tags >> tag;) {
            const std::size_t equals = tag.find('=');
            labels[tag.substr(0, equals)] = tag.substr(equals + 1);
        }
        list.push_back({{"targets", {host.name + ":" + std::to_string(host.port)}}, {"labels", labels}});
    }
    return json_text(list);
}

agent_options exporting(const settings& chosen) {
    agent_options how = asking(chosen);
    how.stored = stored_messages::left;
    how.parallel = std::numeric_limits<std::size_t>::max();  // a silent scheduler must not delay another
    return how;
}

snapshot silent_state(const host_name& host) {
    inquiry silent(host);
    silent.failed(outcome::no_answer);
    return silent.known;
}

exposition format_for(const http_request& request) {
    const bool strict = request.accept.find("application/openmetrics-text") != std::string::npos;
    return strict ? exposition::openmetrics : exposition::prometheus;
}

class exporter : private agent_listener {
public:
    exporter(const settings& chosen, bool any_port, int listener)
        : chosen_(chosen),
          any_port_(any_port),
          limit_(chosen.connect.timeout != 0 ? std::chrono::seconds(chosen.connect.timeout) : scrape_timeout),
          listed_(chosen.several ? chosen.hosts : std::vector<host_name>()),
          pages_{{"/", {.type = "text/html; charset=utf-8", .text = landing_page}},
                 {"/-/healthy", {.text = "OK\n"}},
                 {"/targets", {.type = "application/json", .text = discovery(listed_)}}},
          agent_({}, exporting(chosen), *this),
          server_(listener, limit_ + http_lifetime, std::bind_front(&exporter::handle, this)) {
        std::for_each(listed_.begin(), listed_.end(), [this](const host_name& host) { add(host); });
    }

    // Serves until a signal. Returns the exit code.
    int run() {
        signal_watch signals;
        pollfd others[] = {{server_.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        for (;;) {
            // Before the server's step, which sends the answers.
            const clock::time_point silent = give_up_silent();
            agent_.step(others, std::min(server_.step(), silent));
            if (others[1].revents != 0 && signals.take()) {
                end();
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

    void ask(std::size_t number) { agent_.ask(number, ++last_request_, targets_[number].work->words()); }

    std::size_t add(const host_name& host) {
        targets_.emplace_back();
        return numbers_.emplace(key_of(host), agent_.add(host)).first->second;
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
            return metrics_of_this(request);
        }
        std::string problem;
        const std::optional<std::size_t> number = target_of(request, problem);
        return number ? scrape(request, *number) : http_reply{.status = 400, .text = problem + "\n"};
    }

    // Returns the number of the target; nothing, with the reason in problem, when it may not be asked.
    std::optional<std::size_t> target_of(const http_request& request, std::string& problem) {
        std::vector<host_name> hosts;
        const std::string& text = request.targets.front();
        constexpr const char* allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:";
        if (request.targets.size() != 1 || text.size() > longest_target ||
            text.find_first_not_of(allowed) != std::string::npos || text.starts_with('-') ||
            !add_hosts(text, chosen_.port, hosts, problem)) {
            problem = "expected: /metrics?target=HOST:PORT";
            return std::nullopt;
        }
        const auto known = numbers_.find(key_of(hosts.front()));
        if (known != numbers_.end()) {
            return known->second;
        }
        if (chosen_.several) {
            problem = "only targets of the hosts file may be asked";
        } else if (!any_port_ && hosts.front().port != chosen_.port) {
            problem = "only port " + std::to_string(chosen_.port) + " may be asked";
        } else if (targets_.size() == max_targets) {
            problem = "too many targets";
        } else {
            return add(hosts.front());
        }
        return std::nullopt;
    }

    std::optional<http_reply> scrape(http_request& request, std::size_t number) {
        target& of = targets_[number];
        if (const std::optional<snapshot> followed = followed_state(agent_.host(number))) {
            return reply_with(request, *followed);
        }
        if (of.work && of.begin + limit_ <= clock::now()) {
            return reply_with(request, silent_state(agent_.host(number)));
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

    void password_needed(std::size_t number) override { agent_.password(number, "", false); }

    void ended(std::size_t number, std::uint32_t /*request*/, const command_result& end) override {
        target& of = targets_[number];
        // No request waits while the exporter ends, or when an idle connection was closed. When an answer is
        // late, give_up_silent() has answered its requests before.
        if (ending_ || !of.work || end.how == outcome::no_answer) {
            return;
        }
        if (of.work->ended(end)) {
            return ask(number);
        }
        if (end.how != outcome::over) {
            of.work->failed(end);
        }
        answer_waiting(of, std::exchange(of.work, std::nullopt)->known);
        agent_.close(number);
    }

    http_reply reply_with(const http_request& request, const snapshot& known) {
        if (known.is_own_fault()) {
            ++errors_;
            return {.status = 500, .text = known.problem + "\n"};
        }
        const exposition format = format_for(request);
        return {.type = media_type_of(format), .text = expose(known, format)};
    }

    void answer_waiting(target& of, const snapshot& known) {
        for (http_request* request : std::exchange(of.waiting, {})) {
            http_server::answer(*request, reply_with(*request, known));
        }
    }

    // Returns when to call it again.
    clock::time_point give_up_silent() {
        for (; !begun_.empty(); begun_.pop_front()) {
            const auto [begin, number] = begun_.front();
            if (!targets_[number].work || targets_[number].begin != begin) {
                continue;  // it has answered
            }
            if (begin + limit_ > clock::now()) {
                return begin + limit_;
            }
            answer_waiting(targets_[number], silent_state(agent_.host(number)));
        }
        return clock::time_point::max();
    }

    // A process of its own closes the connections. It waits for the silent schedulers, because they may have
    // handed messages to us.
    void end() {
        ending_ = true;
        for (target& of : targets_) {
            for (http_request* request : std::exchange(of.waiting, {})) {
                http_server::answer(*request, {.status = 503, .text = ending_text});
            }
        }
        server_.step();
        server_.stop();
        if (fork() > 0) {
            _exit(0);
        }
        detach();
        agent_.finish();
    }

    http_reply metrics_of_this(const http_request& request) const {
        const exposition format = format_for(request);
        const auto silent = std::count_if(targets_.begin(), targets_.end(),
                                          [](const target& of) { return of.work.has_value(); });
        return {.type = media_type_of(format),
                .text = expose_exporter(errors_, targets_.size(), static_cast<std::size_t>(silent), format)};
    }

    const settings& chosen_;
    const bool any_port_;  // false: only -p may be asked, so that nobody searches our network for open ports
    const std::chrono::seconds limit_;
    const std::vector<host_name> listed_;            // with several hosts, only these may be asked
    const std::map<std::string, http_reply> pages_;  // those that never change
    std::deque<target> targets_;
    std::unordered_map<std::string, std::size_t> numbers_;         // by key_of
    std::deque<std::pair<clock::time_point, std::size_t>> begun_;  // requests, oldest first
    bool ending_ = false;
    unsigned long errors_ = 0;
    std::uint32_t last_request_ = 0;
    agent agent_;  // before the server: it raises the limit for descriptors; the server gets half
    http_server server_;
};

}  // namespace

int serve_metrics(const settings& chosen) {
    std::string host;
    const int listener = listen_at(chosen.listen, host);
    const bool is_loopback = host.starts_with("127.") || host == "::1" || host == "localhost";
    return exporter(chosen, is_loopback, listener).run();
}

}  // namespace client
