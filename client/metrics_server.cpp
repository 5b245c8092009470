// Uses cpp-httplib, not libmicrohttpd: it is a C++ class with time-outs, header parsing, and a pool of threads that
// limits the number of requests at once. With libmicrohttpd the queue, the query and the answer codes would need code
// of our own. Debian maintains both.
#include "metrics_server.h"

#include "answer.h"
#include "exposition.h"
#include "options.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <httplib.h>
#include <optional>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace client {

namespace {

constexpr std::size_t requests_at_once = 16;  // a request costs a thread and a process
constexpr unsigned usual_limit = 9;           // seconds; collectors wait for ten
constexpr unsigned request_limit = 2;         // seconds for receiving a request
constexpr std::size_t longest_host = 255;
constexpr std::size_t largest_answer = 1 << 20;

struct address {
    std::string host;
    int port = 0;
};

std::optional<int> port_in(const std::string& text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const int port = std::stoi(text);
    return port >= 1 && port <= 65535 ? std::optional(port) : std::nullopt;
}

// Parses "HOST:PORT" or "HOST"; the scheduler supports only IPv4.
// The host becomes an argument of a program, so it must not begin with "-" and may have only the characters of names.
std::optional<address> target_in(const std::string& text, int usual_port) {
    const std::size_t colon = text.find(':');
    const std::string host = text.substr(0, colon);
    const std::optional<int> port = colon == std::string::npos ? usual_port : port_in(text.substr(colon + 1));
    const bool is_name =
        !host.empty() && host.size() <= longest_host && host.front() != '-' &&
        host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_") ==
            std::string::npos;
    return is_name && port ? std::optional(address{host, *port}) : std::nullopt;
}

// Parses "ADDRESS:PORT", ":PORT" or "PORT"; an IPv6 address is in brackets.
std::optional<address> listener_in(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::optional<int> port = port_in(colon == std::string::npos ? text : text.substr(colon + 1));
    std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    if (!port) {
        return std::nullopt;
    }
    return address{host.empty() ? "127.0.0.1" : host, *port};
}

bool is_loopback(const std::string& host) {
    return host.starts_with("127.") || host == "::1" || host == "localhost";
}

std::vector<std::string> command_for(const settings& chosen, const address& target, exposition format) {
    const unsigned limit = chosen.where.timeout != 0 ? chosen.where.timeout : usual_limit;
    std::vector<std::string> words = {
        "schedctl", "-H", target.host, "-p", std::to_string(target.port), "-t", std::to_string(limit)};
    if (!chosen.where.source.empty()) {
        words.insert(words.end(), {"-b", chosen.where.source});
    }
    if (!chosen.password_file.empty()) {
        words.insert(words.end(), {"--password-file", chosen.password_file});
    }
    const char* name = format == exposition::openmetrics ? "openmetrics" : "prometheus";
    words.insert(words.end(), {"metrics", "--format", name});
    return words;
}

std::string read_all(int fd) {
    std::string text;
    std::array<char, 4096> piece;
    ssize_t n = 0;
    while (text.size() < largest_answer && (n = read(fd, piece.data(), piece.size())) > 0) {
        text.append(piece.data(), static_cast<std::size_t>(n));
    }
    return text;
}

// Runs this program again for each target and returns its output, empty when it failed. So a target that hangs keeps no
// resources of the server, and the process that waits for its messages is forked from one without threads.
std::string output_of(std::vector<std::string> words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return "";
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions,
                                             STDERR_FILENO + 1);  // also the sockets of the library
    pid_t child = -1;
    const int problem = posix_spawn(&child, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string text;
    if (problem == 0) {
        text = read_all(ends[0]);
    }
    close(ends[0]);
    int status = 0;
    const bool succeeded = problem == 0 && waitpid(child, &status, 0) == child && status == 0;
    return succeeded ? text : "";
}

void refuse(httplib::Response& response, int status, const std::string& why) {
    response.status = status;
    response.set_content(why + "\n", "text/plain");
}

class exporter {
public:
    exporter(const settings& chosen, bool any_port) : chosen_(chosen), any_port_(any_port) {}

    void answer(const httplib::Request& request, httplib::Response& response) const {
        const std::optional<address> target =
            request.get_param_value_count("target") == 1
                ? target_in(request.get_param_value("target"), chosen_.where.port)
                : std::nullopt;
        if (!target) {
            return refuse(response, 400, "expected: /metrics?target=HOST:PORT");
        }
        if (!any_port_ && target->port != chosen_.where.port) {
            return refuse(response, 400, "only port " + std::to_string(chosen_.where.port) + " may be asked");
        }
        const bool strict =
            request.get_header_value("Accept").find("application/openmetrics-text") != std::string::npos;
        const exposition format = strict ? exposition::openmetrics : exposition::prometheus;
        const std::string text = output_of(command_for(chosen_, *target, format));
        if (text.empty()) {
            return refuse(response, 500, "the metrics cannot be collected; see standard error");
        }
        response.set_content(text, media_type_of(format));
    }

private:
    const settings& chosen_;
    // False: only the port of -p may be asked, so that other machines cannot search our network for open ports.
    bool any_port_;
};

void reuse_address(int fd) {
    const int on = 1;  // no SO_REUSEPORT, which the library would set: two servers would share the requests
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

}  // namespace

int serve_metrics(const settings& chosen) {
    const std::optional<address> where = listener_in(chosen.monitoring.listen);
    if (!where) {
        std::fprintf(stderr, "schedctl: --listen: expected ADDRESS:PORT, not %s\n",
                     chosen.monitoring.listen.c_str());
        return exit_usage;
    }
    const exporter collector(chosen, is_loopback(where->host));
    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(requests_at_once); };
    server.set_socket_options(reuse_address);
    server.set_keep_alive_max_count(1);            // an idle connection would hold one of the threads
    server.set_keep_alive_timeout(request_limit);  // the wait for the first byte
    server.set_read_timeout(request_limit);
    server.set_payload_max_length(0);  // a GET has no body
    server.Get("/metrics", [&collector](const httplib::Request& request, httplib::Response& response) {
        collector.answer(request, response);
    });
    if (!server.bind_to_port(where->host, where->port)) {
        std::fprintf(stderr, "schedctl: cannot listen at %s\n", chosen.monitoring.listen.c_str());
        return exit_usage;
    }
    return server.listen_after_bind() ? 0 : exit_usage;
}

}  // namespace client
