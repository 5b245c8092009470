#!/usr/bin/env bash
# service.sh BUILT SOURCE: systemd accepts the units below these directories, the daemon's alone and with the drop-in. It
# rates the exposure of the daemon and of its modules at 2.0 or less, with the drop-in at 3.5 or less, and at 3.0 or less
# that of the collection.
set -euo pipefail

command -v systemd-analyze >/dev/null || { echo 'skipped: systemd-analyze is missing (package systemd)'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# check UNIT TENTHS: any output of verify is an error, even with exit code 0.
check() {
    local complaints
    complaints=$(systemd-analyze verify --man=no "$dir/$1" 2>&1) || true
    [ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
    systemd-analyze security --offline=yes --no-pager --threshold="$2" "$dir/$1"
}

# The programs need not be installed yet.
cp "$2"/*.timer "$dir"
for unit in "$1"/*.service; do
    sed -E 's%^(Exec[A-Za-z]+=[-+]?)/.*%\1/bin/true%' "$unit" >"$dir/${unit##*/}"
done
check sched.service 20
check sched-parts.service 20
check sched-hardware.service 30
check sched-hardware-sensors.service 30
complaints=$(systemd-analyze verify --man=no "$dir"/*.timer 2>&1) || true
[ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
install -D -m 644 -t "$dir/sched.service.d" "$1/raw-hardware.conf"
check sched.service 35
