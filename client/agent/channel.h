// What a front and its agent say to each other, over a pair of sockets. Each call of a function on the other side is
// sent as the function's number (`to_agent` or `to_front`) and its arguments, in CBOR: the text of a message may have
// any bytes, and CBOR keeps them as they are. Both sides are the same program, so a call is never malformed.
#pragma once

#include "agent/byte_queue.h"
#include "mail/box.h"
#include "net/host_list.h"
#include "protocol/answer.h"
#include "term/descriptor.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <tuple>
#include <vector>

// The answer of `status`, as the agent hands it on.
struct status_answer {
    std::uint32_t request = 0;       // that this answers; 0: a last `status`, or one before `restart` or `quit`
    std::vector<status_line> lines;  // the messages that were stored before come first, then the answer
    bool complete = false;           // false: there is no answer, it broke off, or it is no status
    double seconds = 0;              // that the scheduler took for it
    message_totals totals;           // of this scheduler, as the mailbox has counted them
    std::string unstored;            // why the new messages could not be stored; empty when they are
    std::string notice;              // for the operator, such as who holds messages; lines end with LF
};

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(host_name, label, name, port, tags)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(message_totals, error, warning, info, lost)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_line, id, text, is_message)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_answer, request, lines, complete, seconds, totals, unstored, notice)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(command_result, how, code, signal, reason)

enum class to_agent { add, ask, cancel, close, settle, fetch_stored, password };
enum class to_front { output, status, ended, closed, password_needed, left };

class channel {
public:
    using json = nlohmann::json;

    explicit channel(descriptor socket) : socket_(std::move(socket)) {}

    int fd() const { return socket_.get(); }
    short events() const;                                // to poll for
    std::size_t waiting() const { return out_.size(); }  // bytes that the other side has not taken

    // Queues a call and sends as much as the socket takes. When the other side has gone, it is dropped.
    template <typename name, typename... argument>
    void send(name function, const argument&... arguments) {
        send_frame(json::array({json(function), json::array({json(arguments)...})}));
    }

    // Sends what waits and receives what has come, without waiting. Returns false when the other side has gone and
    // all that it sent was read.
    bool update();

    // Sends the bytes that wait. Gives up when their reader takes nothing for close_timeout.
    void flush();

    // Like flush(). Then tells the other side that no more calls come: its update() returns false when it has read all.
    // The other side can still send.
    void end();

    // The next call that has come whole: its function and its arguments.
    std::optional<json> next();

private:
    void send_frame(const json& frame);
    void send_waiting();

    descriptor socket_;
    byte_queue out_;
    byte_queue in_;
};

template <typename object, typename... argument>
void apply_call(object& of, void (object::*function)(argument...), const nlohmann::json& arguments) {
    auto values = arguments.get<std::tuple<std::decay_t<argument>...>>();
    std::apply([&](auto&... value) { (of.*function)(value...); }, values);
}

// Calls a function of the object with the arguments of a call.
template <auto function, typename object>
void carry_out(object& of, const nlohmann::json& arguments) {
    apply_call(of, function, arguments);
}

// Waits for an event of the descriptor or of `others`, whose revents are set, or until that time; it may end earlier.
// Returns true when the descriptor has an event.
bool wait_for(int fd, short events, std::span<pollfd> others, std::chrono::steady_clock::time_point until);
