// The effects of monitoring messages: changes of status marks and follow-up module commands.
#pragma once

enum class event_audience { hmis, nobody };

// Applies the effect of the code's third and fourth digit. text is a monitoring message. Returns the receivers of the
// message. Event thread only; waits for com_lock when the effect runs a command.
event_audience apply_event_effect(const char* text);
