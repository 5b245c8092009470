// The TCP connection to the scheduler: opening it, waiting, receiving bytes and sending lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

struct addrinfo;

namespace client {

class signal_watch;

// Where and how to connect.
struct endpoint {
    std::string host;        // name or IPv4 address; the scheduler speaks IPv4 only
    std::uint16_t port = 0;  // host byte order
    std::string source;      // local IPv4 address to connect from; empty: the system chooses
    unsigned timeout = 0;    // seconds without a byte before giving up; 0: no limit, and 10 for connecting
};

enum class opened { connected, stopped, failed };  // stopped: by the operator
enum class wake { ready, stopped, silent };        // silent: no byte within the time-out
enum class sent { whole, closed, failed };         // closed: the peer has ended the connection

class connection {
public:
    // signals may be null: signals then have their usual effect.
    connection(endpoint where, signal_watch* signals) : where_(std::move(where)), signals_(signals) {}
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // error gets the reason of a failure, else it is not changed.
    opened open(std::string& error);
    void close();
    bool is_open() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // Sends one request line and a CR. Fails, with the reason in error, when it cannot be sent within 10 s.
    sent send_line(std::string_view line, std::string& error);

    // Sets the seconds without a byte before giving up, from now on; 0: no limit.
    void set_timeout(unsigned seconds) { where_.timeout = seconds; }

    // Waits until bytes can be read, the operator stops the wait, or the time-out has passed.
    wake wait();

    // Returns the bytes that have come, at most 64 KiB; empty at the end of the connection. Valid until the next call.
    std::string_view receive();

private:
    opened connect_to(const void* address, unsigned length, std::string& error);
    opened finish_connecting(int& problem);
    wake wait_for(short events, unsigned seconds);

    endpoint where_;
    signal_watch* signals_;
    addrinfo* found_ = nullptr;  // the host's addresses; null before the look-up
    int fd_ = -1;
    std::string buffer_;
};

}  // namespace client
