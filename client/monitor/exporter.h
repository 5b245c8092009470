// `metrics --listen`: an exporter for schedulers on hosts without their own collector.
#pragma once

namespace client {

struct settings;

// Serves "/metrics?target=HOST[:PORT]" until SIGINT or SIGTERM and then returns 0. Returns 200 when it cannot listen.
int serve_metrics(const settings& chosen);

}  // namespace client
