#!/usr/bin/env bash
# service.sh UNIT DROPIN: systemd accepts the unit, alone and with the drop-in, and rates its exposure at 2.0 or
# less alone, at 3.5 or less with the drop-in.
set -euo pipefail

command -v systemd-analyze >/dev/null || { echo 'skipped: systemd-analyze is missing (package systemd)'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# check TENTHS: any output of verify is an error, even with exit code 0.
check() {
    local complaints
    complaints=$(systemd-analyze verify --man=no "$dir/sched.service" 2>&1) || true
    [ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
    systemd-analyze security --offline=yes --no-pager --threshold="$1" "$dir/sched.service"
}

# The programs need not be installed yet.
sed -E 's%^(Exec[A-Za-z]+=[-+]?)/.*%\1/bin/true%' "$1" >"$dir/sched.service"
check 20
install -D -m 644 -t "$dir/sched.service.d" "$2"
check 35
