// The only reader of the event pipe, which handles the monitoring messages.
#pragma once

#include <cstddef>

constexpr std::size_t event_line_size = 1024;  // bytes of a line, its NUL included; the rest is the next line

// Collects the bytes of the pipe into lines.
class event_line {
public:
    // Adds one byte. Returns true when it ended the line: a newline, or the 1024th byte, which is dropped.
    bool add(char byte);
    // Returns the finished line; valid until the next add.
    [[nodiscard]] const char* text() const { return text_; }

private:
    char text_[event_line_size] = "";
    std::size_t count_ = 0;
};

enum class event_type { ignore, monitoring_message };

// Thread body: opens the pipe, sets pipe_ready for the main thread and reads for ever. Returns only when the pipe
// cannot be opened.
void event_main();

// Handles one line: strips its prefixes, applies and logs it if it is a monitoring message. Event thread only.
void do_eventmsg(const char* line);

// A monitoring message begins with one of E, W, I, D, M, four digits and a colon.
event_type eventtype_check(const char* text);

// Applies a monitoring message and queues it for the HMIs. Event thread only; does not return for I0199.
void event_hmi_msg(const char* text);
