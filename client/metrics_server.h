// `metrics --listen`: an exporter for schedulers whose hosts have no collector of their own.
#pragma once

namespace client {

struct settings;

// Serves "/metrics?target=HOST[:PORT]" until SIGINT or SIGTERM (0). 200 when it cannot listen.
int serve_metrics(const settings& chosen);

}  // namespace client
