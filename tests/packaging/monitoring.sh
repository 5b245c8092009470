#!/usr/bin/env bash
# monitoring.sh EXAMPLES EXPOSITION: Prometheus and Icinga 2 accept the files shipped for them, the alerts start and end
# as their test's time series say, and no file uses a metric that the source EXPOSITION does not have.
set -euo pipefail
examples=$1 exposition=$2
for program in promtool icinga2 jq; do
    command -v "$program" >/dev/null || { echo "skipped: $program is missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

promtool check config "$examples/prometheus/prometheus.yml"
promtool test rules "$examples/prometheus/sched.rules.test.yml"

cat >"$dir/icinga2.conf" <<END
include <itl>
include <plugins>
const PluginDir = "/usr/lib/nagios/plugins"
include "$examples/icinga2/*.conf"
END
icinga2 daemon -C -c "$dir/icinga2.conf" -D "DataDir=$dir" -D "LogDir=$dir" -D "CacheDir=$dir" -D "InitRunDir=$dir" \
    -D "Configuration.RunAsUser=$(id -un)" -D "Configuration.RunAsGroup=$(id -gn)"

jq -e '[.panels[].targets[].expr] | length > 0' "$examples/prometheus/grafana-dashboard.json" >/dev/null
for name in $(jq -r '.panels[].targets[].expr' "$examples/prometheus/grafana-dashboard.json" |
    cat - "$examples/prometheus/sched.rules.yml" | grep -oE '\bsched_[a-z_]+\b' | sort -u); do
    grep -qF "\"${name%_total}\"" "$exposition" || { echo "no such metric: $name"; exit 1; }
done
