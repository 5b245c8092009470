// The messages between a front and its agent, over a pair of sockets.
#pragma once

#include "agent/spill_queue.h"
#include "agent/status_answer.h"
#include "protocol/answer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

enum class frame_kind : std::uint32_t {
    // from the front
    ask,
    cancel,
    close,
    shown,
    fetch_stored,
    password,
    no_password,
    // from the agent
    output,
    status,
    ended,
    late,
    closed,
    held,
    left,
    password_needed,
};

struct frame {
    frame_kind kind{};
    std::uint32_t host = 0;
    std::uint32_t request = 0;
    std::string body;
};

// The body of each kind that has more than a text. Both sides are the same program, so a body is never malformed.
std::string pack(const std::vector<std::string>& words);
std::string pack(const std::vector<std::uint64_t>& numbers);
std::string pack(const status_answer& answer);
std::string pack(const command_result& end);
std::vector<std::string> unpack_words(std::string_view body);
std::vector<std::uint64_t> unpack_numbers(std::string_view body);
status_answer unpack_status(std::string_view body);
command_result unpack_result(std::string_view body);

class channel {
public:
    // Takes the descriptor.
    explicit channel(int fd) : fd_(fd) {}
    ~channel();
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;

    int fd() const { return fd_; }
    short events() const;  // to poll for

    // Queues a frame and sends as much as the socket takes. When the other side has gone, it is dropped.
    void send(const frame& one);

    // Sends what waits and receives what has come, without waiting. Returns false when the other side has gone and
    // all that it sent was read.
    bool update();

    // Sends what waits, with waiting.
    void flush();

    // Tells the other side that nothing more comes; its update() then returns false. It can still send.
    void end();

    // The next frame that has come whole.
    std::optional<frame> next();

private:
    void send_waiting();

    int fd_;
    bool is_gone_ = false;
    spill_queue out_;
    std::string in_;
    std::size_t read_ = 0;  // bytes of in_
};

}  // namespace client
