#!/usr/bin/env bash
# units.sh EXPOSURE BUILT SOURCE UNIT...: systemd accepts the timers in SOURCE and all units, those in BUILT and the
# others, and the daemon's also with the drop-in for modules that need raw hardware. Of the ways to confine a service
# that systemd rates, each unit leaves out those in the file EXPOSURE, and no other, and it opens the devices there.
# Each manual page that a unit names is one of ours.
set -euo pipefail

command -v systemd-analyze >/dev/null || { echo 'skipped: systemd-analyze is missing (package systemd)'; exit 77; }
exposure=$1 built=$2 source=$3
shift 3
export LC_ALL=C # the order of the names
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# verify UNIT...: any output is an error, even with exit code 0.
verify() {
    local complaints
    complaints=$(systemd-analyze verify --man=no "$@" 2>&1) || true
    [ -z "$complaints" ] || { printf '%s\n' "$complaints"; exit 1; }
}

# open_ways UNIT...: the lines in the form of EXPOSURE, of each unit with its drop-ins.
open_ways() {
    systemd-analyze security --offline=yes --json=short --no-pager "$@" | python3 -c '
import json, pathlib, sys
for unit, ways in zip(map(pathlib.Path, sys.argv[1:]), sys.stdin, strict=True):
    added = sorted(unit.parent.glob(unit.name + ".d/*"))
    name = " with ".join([unit.name, *(path.name for path in added)])
    print(name + ":", *sorted(way["json_field"] for way in json.loads(ways) if not way["set"]))
    lines = "".join(path.read_text() for path in [unit, *added]).splitlines()
    opened = [line.removeprefix("DeviceAllow=") for line in lines if line.startswith("DeviceAllow=")]
    if opened:
        print(name, "opens", ", ".join(opened))' "$@"
}

# The programs need not be installed yet.
for unit in "$built"/*.service "$@"; do
    sed -E 's%^(Exec[A-Za-z]+=[-+]?)/.*%\1/bin/true%' "$unit" >"$dir/${unit##*/}"
done
cp "$source"/*.timer "$dir"
verify "$dir"/*.timer "$dir"/*.service
open_ways "$dir"/*.service >"$dir/open"
install -D -m 644 -t "$dir/sched.service.d" "$built/raw-hardware.conf"
verify "$dir/sched.service"
open_ways "$dir/sched.service" >>"$dir/open"
diff "$exposure" "$dir/open"
grep -ohE 'man:[a-z-]+\([1-8]\)' "$dir"/*.service | tr '()' '. ' | while read -r page; do
    [ -f "$source/../man/${page#man:}" ] || { echo "no such page: $page" && exit 1; }
done
