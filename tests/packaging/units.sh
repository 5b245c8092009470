#!/usr/bin/env bash
# units.sh UNIT...: systemd accepts the units of the client and of the relay, and rates the exposure of each at 2.5 or
# less. The limit is so high because one of them runs as root.
set -euo pipefail

command -v systemd-analyze >/dev/null || { echo 'skipped: systemd-analyze is missing (package systemd)'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
for unit in "$@"; do
    # The programs need not be installed yet.
    copy=$dir/${unit##*/}
    sed -E 's%^(Exec[A-Za-z]+=[-+]?)/.*%\1/bin/true%' "$unit" >"$copy"
    complaints=$(systemd-analyze verify --man=no "$copy" 2>&1) || true
    [ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
    systemd-analyze security --offline=yes --no-pager --threshold=25 "$copy" | tail -n 1
done
