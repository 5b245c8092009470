// The TCP connection to the scheduler: opening, waiting, bytes in and lines out.
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
    unsigned timeout = 0;    // seconds of silence before giving up; 0: none, and 10 for connecting
};

enum class opened { connected, stopped, failed };  // stopped: by the operator
enum class wake { ready, stopped, silent };        // silent: nothing within the time-out
enum class sent { whole, closed, failed };         // closed: the peer has ended the connection

class connection {
public:
    // signals may be null: then signals act as the process set them.
    connection(endpoint where, signal_watch* signals) : where_(std::move(where)), signals_(signals) {}
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // error says why it failed; it is left alone otherwise.
    opened open(std::string& error);
    void close();
    bool is_open() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // Sends one request line; CR is added. What cannot be sent within 10 s has failed, and error says why.
    sent send_line(std::string_view line, std::string& error);

    // Seconds of silence before giving up, from now on; 0: none.
    void set_timeout(unsigned seconds) { where_.timeout = seconds; }

    // Waits until bytes can be read, the operator stops the wait, or the silence has lasted too long.
    wake wait();

    // Bytes that have come, at most 64 KiB; empty at the end of the connection. Valid until the next call.
    std::string_view receive();

private:
    opened connect_to(const void* address, unsigned length, std::string& error);
    opened finish_connecting(int& problem);
    wake wait_for(short events, unsigned seconds);

    endpoint where_;
    signal_watch* signals_;
    addrinfo* found_ = nullptr;  // the host's addresses, once they are known
    int fd_ = -1;
    std::string buffer_;
};

}  // namespace client
