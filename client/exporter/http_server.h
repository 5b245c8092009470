// An HTTP server inside another event loop. Each connection has bounded memory, gets one answer, and ends at a fixed
// time, so a sender costs no more than that whatever it sends and however slowly.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct MHD_Connection;
struct MHD_Daemon;

struct http_reply {
    unsigned status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string text;
};

struct http_request {
    std::string path;
    std::vector<std::string> targets;  // the values of "target" in the query, decoded

    MHD_Connection* connection = nullptr;
    std::optional<http_reply> reply;  // when it is known
};

class http_server {
public:
    using clock = std::chrono::steady_clock;

    // Called once for each well-formed GET or HEAD. Returns nothing when answer() will be called for it later.
    using handler = std::function<std::optional<http_reply>(http_request&)>;

    // Listens at that address and TCP port. lifetime: of a connection. Throws std::runtime_error.
    // Before its end all requests must have been answered.
    http_server(const std::string& address, const std::string& port, std::chrono::seconds lifetime, handler answerer);

    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    int fd() const { return fd_; }  // readable when step() has work

    // Serves what has come. Returns the time at which to call it again at the latest.
    clock::time_point step();

    // The next step() sends it.
    static void answer(http_request& request, http_reply reply);

private:
    struct callbacks;  // called by the library

    const std::chrono::seconds lifetime_;
    const handler handler_;
    std::map<MHD_Connection*, clock::time_point> open_;  // with the time at which each ends
    // Declared after open_, because the library changes open_ until it has stopped.
    std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> daemon_;
    int fd_ = -1;
};
