// The live view at a terminal, of one host or several.
#pragma once

namespace client {

struct settings;

// See run_watch(). What was on the screen counts as shown. The view vanishes at the end, so all messages of its list are
// then printed.
int run_live_view(const settings& chosen);

}  // namespace client
