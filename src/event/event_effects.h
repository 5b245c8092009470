// What each monitoring message does to the status marks, and which follow-up commands it calls for.
#pragma once

enum class event_audience { hmis, nobody };

// Applies the effect of the code's third and fourth digit. text is a monitoring message. Event thread only; waits for
// com_lock when the effect runs a command. Returns who is to be told.
event_audience apply_event_effect(const char* text);
