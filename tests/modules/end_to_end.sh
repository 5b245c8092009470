#!/usr/bin/env bash
# end_to_end.sh SCHED SCHEDCTL MODULES CONFIG: a recorded disk begins to fail. After two collections and one patrol the
# event is in the event log, the condition in the status, in the metrics and in the check; a check that hangs, one that
# fails and data that is old are findings too; an exchanged disk is named; what was mended is cleared.
set -euo pipefail
sched=$1 schedctl=$2 modules=$3 config=$4
answers=$(cd "$(dirname "$0")/answers/smartctl" && pwd)

dir=$(mktemp -d) pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
cd "$dir"
cp -r "$modules" bin
rm bin/parts.d/{bmc,fans,memory,power,temperatures,voltages} # they find nothing here, and each start takes time
cp -r "$config" config
sed -i 's/^limit=20 /limit=200 /' bin/parts # for a busy machine; the check that hangs below gets the real limit
sed -i 's/ 60$/ 250/' config/vgd_modules
mkdir -p data log temp update tools config/parts.d root/sys root/proc
cp /proc/{cpuinfo,meminfo,uptime} root/proc
mkfifo pipe
export VGD_bin=$dir/bin VGD_config=$dir/config VGD_data=$dir/data VGD_log=$dir/log VGD_temp=$dir/temp \
    VGD_update=$dir/update VGD_PIPE=$dir/pipe PARTS_ROOT=$dir/root SCHED_HARDWARE=$dir/run \
    SCHED_HARDWARE_STATE=$dir/state HOME=$dir XDG_STATE_HOME=$dir/client
: >config/timer_jobs
# Only this machine's smartctl is replaced; the other tools must not see real hardware either.
export PATH=$dir/tools:$PATH
for tool in sensors ipmi-sensors ipmi-sel ras-mc-ctl mdadm lsblk dmidecode; do
    printf '#!/bin/sh\nexit 1\n' >"tools/$tool"
done
cat >tools/smartctl <<'X'
#!/bin/sh
case "$*" in
*--scan-open*) echo '{"devices": [{"name": "/dev/sdz", "type": "sat", "protocol": "ATA"}]}' ;;
*) cat "${SCHED_HARDWARE%/run}/disk" ;;
esac
X
chmod +x tools/*
# recorded NAME: what the disk answers from now on; the answers tell of the same disk.
recorded() { sed 's/"serial_number": ".*"/"serial_number": "SERIAL7"/; s,"/dev/ata-[a-z]*","/dev/sdz",' "$answers/$1.json" >disk; }
collect() { bin/collect >>collected; }

recorded ata-good
# A tool that hangs is ended, and the others go on.
cp tools/sensors silent
printf '#!/bin/sh\nsleep 600\n' >tools/sensors
TOOL_LIMIT=3 collect
mv silent tools/sensors
for ((try = 1; try <= 5; try++)); do
    port=$((10000 + RANDOM % 10000)) # the other tests use higher ones
    "$sched" -D -N 0 -p "$port" >trace 2>&1 </dev/null &
    pid=$!
    for ((i = 0; i < 1200; i++)); do
        ! grep -q 'accepting socket' trace || break 2
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
done
ask() { "$schedctl" -p "$port" "$@"; }
# until_true COMMAND...: the scheduler reads events a moment after they were written.
until_true() {
    for ((i = 0; i < 300; i++)); do
        ! "$@" || return 0
        sleep 0.1
    done
    fail "waited in vain for: $*"
}
shows() { ask status >shown; grep -q "$1" shown; }
shows_not() { ! shows "$1"; }

grep -q '^sensors: failed: ended after 3 s' collected || fail "a tool that hangs: $(cat collected)"
ask parts status >answer || fail "a good disk: $(cat answer)"
grep -q 'nothing to report, looked at .*1 disks' answer || fail "a good disk: $(cat answer)"
ask patrol check >/dev/null
shows_not '^error ' || fail 'a good disk raises a condition'

recorded ata-failing
collect
collect
ask patrol check >answer
until_true grep -q 'E0101:disk /dev/sdz (Makro Disk MD4000, serial number SERIAL7): it fails' log/event_log
grep -q 'W0100:.* 2040 reallocated sectors' log/event_log || fail 'wear is not in the event log'
ask metrics >exposition
grep -q '^sched_condition{.*error.*} 1$' exposition || fail "the condition is not in the metrics: $(grep condition exposition)"
grep -q '^sched_parts_found{severity="wear"} 1$' data/parts.prom || fail "wear is not in its metrics: $(cat data/parts.prom)"
status=0
ask check >answer || status=$?
[ "$status" -eq 2 ] || fail "the check ends with $status: $(cat answer)"
until_true shows '^error '
status=0
ask parts status >answer || status=$?
[ "$status" -eq 2 ] || fail "parts status ends with $status"
grep -q 'copy its data and replace it (since 20' answer || fail "parts status: $(cat answer)"

ask patrol check >answer
! grep reported answer || fail 'what is known was reported again'
ask parts clear >/dev/null
until_true shows_not '^error '
ask parts status >answer || fail "after the clearing: $(cat answer)"

# The disk is exchanged: its conditions are gone, and the record of the hardware differs.
ask devconf update >/dev/null
recorded ata-good
sed -i 's/SERIAL7/SERIAL8/' disk
collect
ask patrol check >/dev/null
until_true grep -q 'I0111:parts: a condition has gone' log/event_log
status=0
ask devconf check >answer || status=$?
[ "$status" -eq 2 ] || fail "devconf check ends with $status: $(cat answer)"
grep -q '^< disk: .*SERIAL7' answer || fail "the old disk is not named: $(cat answer)"
grep -q '^> disk: .*SERIAL8' answer || fail "the new disk is not named: $(cat answer)"
until_true grep -q 'W0104:devconf: .*SERIAL7' log/event_log
ask devconf update >/dev/null
sed -i 's/^disk: .*serial number [^,]*/&, firmware 1/' data/devconf # as an earlier version wrote it
ask devconf check >answer || fail "with a record of an earlier version: $(cat answer)"

# A site's checks: one hangs, one fails, one talks nonsense; the others' findings stay.
printf '#!/bin/sh\nsleep 600\n' >config/parts.d/hangs
printf '#!/bin/sh\necho "no such thing" >&2\nexit 3\n' >config/parts.d/fails
printf '#!/bin/sh\necho nonsense\nprintf "fault\\tsite:1\\tpump 1: stands still\\n"\n' >config/parts.d/talks
chmod +x config/parts.d/*
sed -i 's/^limit=200 /limit=5 /' bin/parts
start=$SECONDS
ask parts status >answer || status=$?
[ $((SECONDS - start)) -lt 40 ] || fail 'a check that hangs was not ended in time'
for wanted in 'check hangs did not end within 5 s' 'check fails failed with 3: no such thing' \
    'check talks printed a line .*: nonsense' 'pump 1: stands still'; do
    grep -q "$wanted" answer || fail "not in parts status: $wanted; but $(cat answer)"
done
rm config/parts.d/*

# Three collections late.
touch -d '4 minutes ago' run/sensors.status
ask parts status >answer || status=$?
grep -q 'sensors is older than 3 minutes' answer || fail "old data: $(cat answer)"
echo 'I0199:end' >pipe
wait "$pid" || fail "the scheduler ended with $?"
pid=
