#!/usr/bin/env bash
# bmc.sh MODULES: freeipmi's tools ask a simulated BMC over loopback, collect stores what they say, and the checks find
# what has gone wrong since the first collection. A BMC that hangs costs the other sources nothing.
set -euo pipefail
modules=$1
for program in ipmi_sim ipmi-sensors ipmi-sel; do
    command -v "$program" >/dev/null || { echo "skipped: $program is missing (packages openipmi, freeipmi-tools)"; exit 77; }
done

dir=$(mktemp -d) pid=
trap '[ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT
fail() { printf 'FAILED: %s\n' "$*"; cat "$dir"/run/*.status; exit 1; }
cd "$dir"
mkdir -p bmc bin config data temp log update root/sys root/proc
cp -r "$modules"/. bin
rm bin/parts.d/{arrays,disks,memory,smart,voltages} # they find nothing here, and each start takes time
sed -i 's/^limit=20 /limit=200 /' bin/parts # for a busy machine
export VGD_bin=$dir/bin VGD_config=$dir/config VGD_data=$dir/data VGD_temp=$dir/temp VGD_log=$dir/log \
    VGD_update=$dir/update VGD_PIPE=$dir/none PARTS_ROOT=$dir/root SCHED_HARDWARE=$dir/run SCHED_HARDWARE_STATE=$dir/state

# name_of TEXT: its type and length, then the text.
name_of() { printf '%d' $((0xc0 + ${#1})) && printf '%s' "$1" | od -An -tx1 | tr -d '\n' | sed 's/ / 0x/g'; }
# reading NUMBER ENTITY TYPE UNIT UPPER-AND-LOWER-LIMITS NAME, discrete NUMBER NAME: records of sensors.
reading() {
    printf 'main_sdr_add 0x20 0 0 0x51 1 %d 0x20 0 %d %d 1 0x7f 0x68 %d 1 0x80 0x0a 0x80 0x0a 0x38 0 0 %d 0 0 1' \
        $((43 + ${#6})) "$1" "$2" "$3" "$4"
    printf ' 0 0 0 0 0 0 0 0 0 0xff 0 %s 0 0 0 0 0 %s\n' "$5" "$(name_of "$6")"
}
discrete() {
    printf 'main_sdr_add 0x20 0 0 0x51 2 %d 0x20 0 %d 10 1 0x67 0x40 8 0x6f 0xff 0 0xff 0 0xff 0 0xc0 0 0 1' \
        $((27 + ${#2})) "$1"
    printf ' 0 0 0 0 0 0 0 %s\n' "$(name_of "$2")"
}
events=111111111111111
{
    printf 'mc_setbmc 0x20\nmc_add 0x20 0 no-device-sdrs 0x23 9 8 0x9f 0x1291 0xf02\nsel_enable 0x20 1000 0x0a\n'
    reading 1 3 1 1 '100 95 90 0 0 0' 'CPU Temp'
    reading 2 29 4 18 '0 0 0 0 20 30' 'Fan 1'
    discrete 4 'PSU 2'
    printf 'sensor_add 0x20 0 1 1 1\nsensor_set_threshold 0x20 0 1 settable 111000 100 95 90 0 0 0\n'
    printf 'sensor_set_event_support 0x20 0 1 enable scanning per-state 000%s 000%s 000%s 000%s\n' 111111000000 \
        111111000000 111111000000 111111000000
    printf 'sensor_set_value 0x20 0 1 40 0\n'
    printf 'sensor_add 0x20 0 2 4 1\nsensor_set_threshold 0x20 0 2 settable 000011 0 0 0 0 20 30\n'
    printf 'sensor_set_event_support 0x20 0 2 enable scanning per-state %s %s %s %s\n' $events $events $events $events
    printf 'sensor_set_value 0x20 0 2 50 0\n'
    printf 'sensor_add 0x20 0 4 8 0x6f\nsensor_set_bit 0x20 0 4 0 1 0\n'
    # What was logged before the first collection is not told.
    printf 'sel_add 0x20 2 0 0 0 0 0x20 0 4 8 4 0x6f 1 0xff 0xff\nmc_enable 0x20\n'
} >commands

for ((try = 1; try <= 5; try++)); do
    port=$((10000 + RANDOM % 10000)) # the other tests use higher ones
    {
        printf 'name "bmc"\n  console 127.0.0.1 %d\n  startlan 1\n    addr 127.0.0.1 %d\n    priv_limit admin\n' $port $port
        printf '    allowed_auths_%s none md2 md5 straight\n' callback user operator admin
        printf '    guid a123456789abcdefa123456789abcdef\n  endlan\n'
        printf 'user 2 true "ipmiusr" "test" admin 10 none md2 md5 straight\n'
    } >lan.conf
    ipmi_sim -c lan.conf -f commands -s bmc -n </dev/null >simulator 2>&1 &
    pid=$!
    for ((i = 0; i < 100; i++)); do
        # A connection that ends at once would stop the simulator.
        ! grep -q ":$(printf '%04X' "$port") " /proc/net/udp || break 2
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    kill "$pid" 2>/dev/null || true
done
export IPMI_OPTIONS="-D LAN -h 127.0.0.1:$port -u ipmiusr -p test -l admin"
# tell LINE...: sends commands to the simulator. When it has carried them out, it rejects the unknown one at the end.
tell() {
    exec 3<>"/dev/tcp/127.0.0.1/$port"
    printf '%s\n' "$@" end >&3
    timeout 20 grep -qa 'Unknown command: end' <&3 || fail 'the simulator does not answer'
    exec 3>&-
}
collect() { bin/collect sensors >>collected; }
finds() {
    bin/parts judge
    grep -qE "$1" data/parts.findings || fail "not found: $1; but $(cat data/parts.findings)"
}

collect
collect
grep -q '^ipmi-sensors'$'\t''ok' run/sensors.status || fail 'ipmi-sensors has no answer'
grep -q '^ipmi-sel'$'\t''ok' run/sensors.status || fail 'ipmi-sel has no answer'
bin/parts status >answer || fail "a good machine: $(cat answer)"
finds '^seen.temperatures.1'
finds '^seen.fans.1'
finds '^seen.power.1'

tell 'sensor_set_value 0x20 0 1 96 1' 'sensor_set_bit 0x20 0 4 1 1 0' 'sensor_set_value 0x20 0 2 19 0' \
    'sel_add 0x20 2 0 0 0 0 0x20 0 4 8 4 0x6f 1 0xff 0xff'
collect
! { bin/parts judge && grep '^fault.*CPU Temp' data/parts.findings; } || fail 'one reading was told'
collect
finds '^fault.temperature:ipmi:CPU Temp:crit.*96 degrees Celsius, critical limit 95'
finds '^fault.fan:ipmi:Fan 1:crit.*19 turns a minute, critical limit 20'
finds '^fault.power:ipmi:PSU 2:crit.*Power Supply Failure detected'
finds '^fault.bmc:log:[0-9]+:PSU 2:.*Power Supply Failure detected, logged by the BMC'
[ "$(grep -c '^fault.bmc:log' data/parts.findings)" -eq 1 ] || fail 'an entry from before the first collection is told'

# The log entry for the end of the failure has the same state as the entry for its start.
tell 'sel_add 0x20 2 0 0 0 0 0x20 0 4 8 4 0xef 1 0xff 0xff'
collect
bin/parts judge
! grep '^fault.bmc:log' data/parts.findings || fail 'an event that ended is still reported'

kill -STOP "$pid"
export TOOL_LIMIT=1
for _ in 1 2 3; do
    start=$SECONDS
    collect
    [ $((SECONDS - start)) -lt 30 ] || fail 'a BMC that hangs was waited for'
done
kill -CONT "$pid"
grep -q '^kernel'$'\t''ok' run/sensors.status || fail 'the other sources were not asked'
finds '^fault.collection:ipmi-sensors:failed.*ipmi-sensors has not answered in 3 collections: ended after 1 s'
