// What a follower knows of one host, and what it makes of the answers: lines of JSON, the state file, the spool.
#pragma once

#include "answer.h"
#include "connection.h"
#include "follow_lines.h"
#include "snapshot.h"
#include "spool.h"

#include <functional>
#include <string>
#include <string_view>

namespace client {

class followed_host {
public:
    // Writes one line; false when it cannot be written: then it stays so.
    using writer = std::function<bool(const std::string& line)>;

    followed_host(endpoint where, bool level_prefix, writer write);
    followed_host(const followed_host&) = delete;  // the lines refer to where_
    followed_host& operator=(const followed_host&) = delete;

    // The scheduler answered `status` after so many seconds.
    void answered(std::string_view answer, double seconds);
    void not_answered(const answer_end& end);

    // Hands on the messages of an answer, also of one that broke off. What cannot be written goes into the spool.
    void take_messages(std::string_view answer);

    snapshot& known() { return known_; }

    // Writes the state file, which readers take for fresh for so many seconds.
    void save(double seconds);
    void remove_state() const;

private:
    void emit_changes(const std::vector<condition>& now);
    bool emit_messages(const status_report& report);
    void hand_on(const status_report& report);

    endpoint where_;
    follow_lines lines_;
    writer write_;
    spool spool_;
    std::string state_path_;
    snapshot known_;
    bool told_down_ = false;
    bool save_failed_ = false;
};

}  // namespace client
