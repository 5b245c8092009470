#!/usr/bin/env bash
# metric_names.sh DIRECTORY SOURCE...: every metric that a file below the directory names is one that a source writes.
set -euo pipefail
examples=$1
shift
names=$(grep -rhoE '\bsched_[a-z_]+\b' "$examples" | sort -u)
[ "$(wc -l <<<"$names")" -ge 10 ] || { echo "these are too few: $names"; exit 1; }
failed=0
for name in $names; do
    grep -qE "\b$name\b" "$@" || { echo "no such metric: $name"; failed=1; }
done
exit "$failed"
