// What is known of one scheduler, and the requests that bring it up to date. Views, checks and the exporter share it.
#pragma once

#include "agent/status_answer.h"
#include "protocol/answer.h"
#include "watch/snapshot.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace client {

// A message, or a count of messages that the scheduler or the mailbox has dropped.
struct received_message {
    std::uint64_t id = 0;  // in the mailbox; 0: it is not there, so nothing has to be acknowledged
    message what;          // for a count: the current time, and a text for people
    unsigned long lost = 0;
};

// What an answer of `status` brings, compared with what was known.
struct status_update {
    std::vector<condition> set;  // also those that were set anew, at another time
    std::vector<condition> cleared;
    std::vector<received_message> messages;
};

// Its owner calls begin(), asks words(), and hands on what comes until ended() returns false.
class inquiry {
public:
    explicit inquiry(host_name of) : host(std::move(of)) {}

    // with_details: connections, modules and timer jobs before the status.
    void begin(bool with_details);
    const std::vector<std::string>& words() const;

    void output(std::string_view text) { answer_ += text; }
    status_update status(const status_answer& answer);

    // The end of a command. Returns true when the next words() are to be asked.
    bool ended(const command_result& end);

    // There is no answer.
    void failed(const command_result& why);

    const host_name host;
    snapshot known;

private:
    std::size_t next_ = 0;  // index of the next request
    std::string answer_;    // of a detail, as far as it has come
};

}  // namespace client
