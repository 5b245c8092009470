// Frames of bytes between a front and its agent, over a pair of sockets.
#pragma once

#include "agent/spill_queue.h"
#include "term/descriptor.h"

#include <optional>
#include <string>
#include <string_view>

namespace client {

class channel {
public:
    explicit channel(descriptor socket) : socket_(std::move(socket)) {}

    int fd() const { return socket_.get(); }
    short events() const;  // to poll for

    // Queues a frame and sends as much as the socket takes. When the other side has gone, it is dropped.
    void send(std::string_view frame);

    // Sends what waits and receives what has come, without waiting. Returns false when the other side has gone and
    // all that it sent was read.
    bool update();

    // Sends the bytes that wait. Waits for their reader, at most close_timeout.
    void flush();

    // Like flush(); also tells the other side that nothing more comes. Its update() then returns false; it can still
    // send.
    void end();

    // The next frame that has come whole.
    std::optional<std::string> next();

private:
    void send_waiting();

    descriptor socket_;
    bool is_gone_ = false;
    spill_queue out_;
    std::string in_;
    std::size_t read_ = 0;  // bytes of in_
};

}  // namespace client
