#include "followed_host.h"

#include "changes.h"
#include "visit.h"

#include <cstdio>
#include <unistd.h>
#include <utility>

namespace client {

followed_host::followed_host(endpoint where, bool level_prefix, writer write)
    : where_(std::move(where)),
      lines_(where_, level_prefix),
      write_(std::move(write)),
      spool_(where_),
      state_path_(state_file_to_write(where_)) {
    if (const std::optional<snapshot> before = followed_state(where_)) {
        known_.totals = before->totals;  // counters go on across a restart of the follower
    }
}

void followed_host::answered(std::string_view answer, double seconds) {
    known_.answer_seconds = seconds;
    known_.answered = wall_clock();
    // The first answer, or the first after a failure. Stored messages are older than those of this answer, so
    // they come before them.
    if (!known_.up) {
        known_.up = true;
        known_.failure = 0;
        known_.problem.clear();
        told_down_ = false;
        write_(lines_.connected());
        spool_.hand_over([this](const status_report& waiting) { return emit_messages(waiting); });
    }
    const status_report report = parse_status(answer);
    emit_changes(report.conditions);
    hand_on(report);
    // From a local file, so it needs no request.
    known_.uptime_minutes = uptime_of(where_);
}

void followed_host::not_answered(const answer_end& end) {
    // The conditions stay as they were, so that the next answer tells only what has changed since.
    known_.up = false;
    known_.failure = exit_code_of(end);
    known_.problem = describe(end);
    // One line for the whole outage, not one for each attempt.
    if (!std::exchange(told_down_, true)) {
        write_(lines_.disconnected(known_.problem));
    }
}

// A line that cannot be written is not stored: the first answer to the next follower lists all conditions
// again.
void followed_host::emit_changes(const std::vector<condition>& now) {
    const condition_changes changed = compare(known_.conditions, now);
    for (const condition& c : changed.set) {
        write_(lines_.set(c));
    }
    for (const condition& c : changed.cleared) {
        write_(lines_.cleared(c));
    }
    known_.conditions = now;
}

// true when all of it was written.
bool followed_host::emit_messages(const status_report& report) {
    bool written = true;
    for (const message& m : report.messages) {
        written = write_(lines_.received(m)) && written;
    }
    if (report.lost != 0) {
        written = write_(lines_.lost(report.lost)) && written;
    }
    return written;
}

// The conditions are not compared: in an answer that broke off, those that are missing would look cleared.
void followed_host::take_messages(std::string_view answer) {
    hand_on(parse_status(answer));
}

void followed_host::hand_on(const status_report& report) {
    // The scheduler sends each message once. The whole report is stored, since it is not known which lines
    // the reader got: a message may be shown twice, but is not lost.
    if (!emit_messages(report)) {
        spool_content content;
        std::string problem;
        spool_.append(report, content, problem);
    }
    // The state file has them even when the reader got no line.
    known_.totals.add(report);
    known_.messages.insert(known_.messages.end(), report.messages.begin(), report.messages.end());
    keep_newest(known_.messages);
}

void followed_host::save(double seconds) {
    std::string problem;
    // An empty path: there is no directory for the file, and following works without it. A failure is told
    // once, because a full disk would give a line in each interval.
    if (!state_path_.empty() && !write_state_file(state_path_, known_, wall_clock() + seconds, problem) &&
        !std::exchange(save_failed_, true)) {
        std::fprintf(stderr, "schedctl: the state file cannot be written: %s\n", problem.c_str());
    }
}

void followed_host::remove_state() const {
    if (!state_path_.empty()) {
        // A failure is ignored: the file contains the time after which readers ignore it.
        unlink(state_path_.c_str());
    }
}

}  // namespace client
