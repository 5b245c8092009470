// `watch` and `follow`: they show what changes at the schedulers until they are ended.
#pragma once

struct settings;

// The live view, or without a terminal a line for each change. Runs until the operator ends it (0) or the output can no
// longer be written. A host that cannot be reached is tried again at each interval. A single host that does not answer
// the first question, or refuses, ends it with an exit code.
//
// `follow`: one line of JSON for each thing that happens, for other programs. Runs until a signal or the end of its
// reader (0), and waits for schedulers that are not there yet. One that refuses ends it with an exit code; among
// several hosts it is reported and tried again after a minute. Messages that can no longer be written stay in the
// mailbox. It keeps a state file for each host, from which `check` and `metrics` are answered.
int run_watch(const settings& chosen);

// The live view. What was on the screen counts as shown. The view vanishes at the end, so all messages of its list are
// then printed.
int run_live_view(const settings& chosen);
