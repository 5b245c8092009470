#!/usr/bin/env bash
# compare.sh PROMETHEUS FOUND: the pages of Prometheus at this address, as Chromium shows them, have the texts of
# all.txt and host.txt here. In these, AGE, DATE, DAYS and PORT stand for what differs between runs. Stores pictures and
# texts of both pages in the directory FOUND. scripts/fleet calls it.
set -euo pipefail
cd "$(dirname "$0")"
prometheus=$1 found=$2
command -v chromium >/dev/null || { echo 'skipped: chromium is missing (package chromium)'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# Its sandbox does not work for root, nor in most containers; it loads our own pages only. --virtual-time-budget is
# milliseconds of the page's own clock.
browse() {
    timeout 120 chromium --headless --no-sandbox --disable-gpu --user-data-dir="$dir/profile" --lang=en-GB \
        --hide-scrollbars --window-size=1240,1130 --virtual-time-budget=10000 "$@" 2>/dev/null
}
normal() {
    sed -E -e 's/([0-9.]+(ms|us|[dhms]) ?)+\b/AGE /g; s/ +/ /g' -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}/DATE/g' \
        -e 's/((Mon|Tue|Wed|Thu|Fri|Sat|Sun),? [0-9]+ [A-Z][a-z]+ )+/DAYS /g' -e 's/127\.0\.0\.1:[0-9]+/127.0.0.1:PORT/g'
}
failed=0
show() {
    local name=$1 address=$prometheus/consoles/$2
    browse --dump-dom "$address" | python3 text_of.py | normal >"$found/$name.txt"
    diff -u "$name.txt" "$found/$name.txt" || failed=1
    browse --screenshot="$found/$name.png" "$address" >/dev/null 2>&1
}
show all sched.html
show host 'sched-host.html?instance=db1:9980&job=sched'
exit "$failed"
