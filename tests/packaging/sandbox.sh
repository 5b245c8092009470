#!/usr/bin/env bash
# sandbox.sh SCHED MODULES CONFIG UNIT: the suite works under the essentials of the service's sandbox (read-only file system,
# no privilege but the raw socket, and no way to gain one), and a module has no more privileges.
set -euo pipefail
sched=$1 modules=$2 config=$3 unit=$4

skip() { printf 'skipped: %s\n' "$*"; exit 77; }
fail() { printf 'FAILED: %s\n' "$*"; cat trace; exit 1; }
[ "$(id -u)" -eq 0 ] || skip 'only root can drop privileges'
{ command -v unshare && command -v setpriv; } >/dev/null || skip 'unshare or setpriv is missing (package util-linux)'
unshare --mount --propagation private mount -o remount,bind,ro / 2>/dev/null || skip 'no mount namespaces here'
capability=$(sed -n 's/^AmbientCapabilities=CAP_//p' "$unit" | tr '[:upper:]' '[:lower:]')

dir=$(mktemp -d) pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT
cd "$dir"
cp -r "$modules" bin
cp -r "$config" config
cp "$sched" sched # other users may not read the build directory
mkdir -p data log temp update
mkfifo pipe
cat >bin/probe <<'X'
#!/bin/sh
grep -E '^(CapEff|CapBnd|NoNewPrivs|Uid)' /proc/self/status
touch "$VGD_config/x" 2>/dev/null && echo 'wrote to the configuration'
touch "$VGD_temp/x" && echo 'wrote to temp'
exit 0
X
chmod +x bin/probe
echo 'probe probe yes 10' >>config/vgd_modules
chmod 755 . && chown -R 65534 config data log temp update pipe # so that only the sandbox prevents writing
export VGD_bin=$dir/bin VGD_config=$dir/config VGD_data=$dir/data VGD_log=$dir/log VGD_temp=$dir/temp \
    VGD_update=$dir/update VGD_PIPE=$dir/pipe

start() {
    port=$((10000 + RANDOM % 10000)) # the other tests use higher ones
    # shellcheck disable=SC2016
    unshare --mount --propagation private sh -c '
        for dir in config data log temp update; do mount --bind $dir $dir; done
        mount -o remount,bind,ro config && mount -o remount,bind,ro / && umask 077 && exec setpriv "$@"' sh \
        --reuid=65534 --regid=65534 --clear-groups --no-new-privs --bounding-set="-all,+$capability" \
        --inh-caps="-all,+$capability" --ambient-caps="-all,+$capability" \
        ./sched -D -p "$port" >trace 2>&1 </dev/null &
    pid=$!
}
ended() { ! kill -0 "$pid" 2>/dev/null; }
# ready: waits up to 60 seconds, as a build with sanitizers is slow.
ready() {
    for ((i = 0; i < 600; i++)); do
        ! grep -q 'accepting socket' trace || return 0
        ! ended || return 1
        sleep 0.1
    done
    fail 'not ready in time'
}
for ((try = 1; try <= 5; try++)); do
    start
    ! ready || break # otherwise the port was in use, or the next try fails again
done
ended && fail 'the scheduler ended'

exec 3<>"/dev/tcp/127.0.0.1/$port"
printf '%s\r' probe $'ipset\t127.0.0.1' $'send\thello' quit >&3
answer=$(timeout 30 cat <&3 | tr -d '\r')
mask=$(printf '%016x' $((1 << 13))) # CAP_NET_RAW
for wanted in $'Uid:\t65534' $'NoNewPrivs:\t1' "CapEff:"$'\t'"$mask" "CapBnd:"$'\t'"$mask" 'wrote to temp'; do
    [[ $answer == *"$wanted"* ]] || fail "the module does not say \"$wanted\": $answer"
done
[[ $answer != *'wrote to the configuration'* ]] || fail 'the module wrote to the configuration'
[[ $answer == *$'__over__ 0 0\n__over__ 0 0\nGood-bye.' ]] || fail "no datagram was sent: $answer"
for module in allmodcall parts diag; do # 0: no fault; 200: a fault is reported
    grep -qE "command:\"$module\" end. status=(0|200)$" trace || fail "the module $module failed"
done
echo 'I0199:end' >pipe
wait "$pid" || fail "the scheduler ended with $?"
pid=
