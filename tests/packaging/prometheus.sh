#!/usr/bin/env bash
# prometheus.sh EXAMPLES: Prometheus accepts the files shipped for it, the alerts start, stay and end as their test's
# time series say, and no panel of the dashboard is green while there are no data.
set -euo pipefail
examples=$1/prometheus
for program in promtool jq; do
    command -v "$program" >/dev/null || { echo "skipped: $program is missing (packages prometheus, jq)"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

promtool check config "$examples/prometheus.yml"
promtool test rules "$examples/sched.rules.test.yml"

jq '{tests: [{promql_expr_test: [
        .panels[] | select(.type == "stat") | .targets[].expr | gsub("\\$instance"; ".*") |
        {expr: "(\(.)) >= 0", eval_time: "1m", exp_samples: []}
    ]}]}' "$examples/grafana-dashboard.json" >"$dir/panels.yml"
promtool test rules "$dir/panels.yml"
jq -e '[.panels[] | select(.type == "stat") | .fieldConfig.defaults.thresholds.steps[] | select(.value == null) | .color] |
    length >= 4 and all(. != "green")' "$examples/grafana-dashboard.json" >/dev/null ||
    { echo 'a panel is green without data'; exit 1; }
