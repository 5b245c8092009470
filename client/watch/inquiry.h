// What is known of one scheduler, and the requests that bring it up to date. Views, checks and the exporter share it.
#pragma once

#include "agent/channel.h"
#include "watch/events.h"
#include "watch/snapshot.h"

#include <utility>

// Its owner calls begin(), asks words(), and hands on what comes until ended() returns false.
class inquiry {
public:
    explicit inquiry(host_name of) : host(std::move(of)) {}

    // with_details: connections, modules and timer jobs before the status.
    void begin(bool with_details);
    const std::vector<std::string>& words() const;

    void output(std::string_view text) { answer_ += text; }
    // Returns what an answer of `status` brings: first the changes of conditions, compared with what was known (one
    // with a new date counts as set again), then messages and counts of lost ones.
    std::vector<event> status(const status_answer& answer);

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
