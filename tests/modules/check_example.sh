#!/usr/bin/env bash
# check_example.sh PAGE MODULES: the check that the manual page shows has at most 15 lines, shellcheck has nothing to say
# about it where it is installed, and parts runs it: on disks of every age, and on answers that cannot be read.
set -euo pipefail
page=$1 modules=$2
command -v jq >/dev/null || { echo 'skipped: jq is missing'; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
cd "$dir"
mkdir -p config/parts.d data temp log run/smart root/sys root/proc
cp -r "$modules" bin
find bin/parts.d -type f -delete # the shipped checks are tried elsewhere
awk '$0 == ".\\\" file: parts.d/age" { on = 1; next } on && /^\.Ed/ { on = 0 }
    on && !/^\.Bd/ { gsub(/\\e/, "\\"); print }' "$page" >config/parts.d/age
chmod +x config/parts.d/age
[ "$(wc -l <config/parts.d/age)" -le 15 ] || fail 'the example is longer than 15 lines'
! command -v shellcheck >/dev/null || shellcheck config/parts.d/age
: >run/disks.status
disk() { printf '{"device": {"name": "/dev/%s"}, "serial_number": "S%s", "power_on_time": {"hours": %s}}' "$1" "$1" "$2" >"run/smart/$1.json"; }
disk new 12
disk old 43800
disk text '"many"'
disk broken '{'
export VGD_bin=$dir/bin VGD_config=$dir/config VGD_data=$dir/data VGD_temp=$dir/temp VGD_log=$dir/log VGD_PIPE=$dir/none \
    SCHED_HARDWARE=$dir/run
status=0
bin/parts prevstatus >answer || status=$?
[ "$status" -eq 2 ] || fail "parts prevstatus ends with $status: $(cat answer)"
grep -qx 'disk /dev/old (serial number Sold): 43800 hours, limit 43800; plan to replace it (since .*)' answer ||
    fail "the old disk: $(cat answer)"
[ "$(wc -l <answer)" -eq 1 ] || fail "more than the old disk: $(cat answer)"
bin/parts status >answer || fail "parts status: $(cat answer)"
grep -q 'looked at 2 ages of disks' answer || fail "what was looked at: $(cat answer)"
