#!/usr/bin/env bash
# service_steps.sh SERVICE: the service's program finds other schedulers in the same directories, and the errors in the
# trace.
set -euo pipefail
service=$1
dir=$(mktemp -d) pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }

# ---- service alone -----------------------------------------------------------------------------------------------
chmod 755 "$dir"
mkdir "$dir/log"
cp "$(command -v sleep)" "$dir/sched"
export VGD_log=$dir/log VGD_data=$dir/data VGD_PIPE=$dir/pipe

# alone_beside WANTED WHAT COMMAND...: "service alone" ends with WANTED beside a process of this command.
alone_beside() {
    local wanted=$1 what=$2 status=0
    shift 2
    "$@" "$dir/sched" 600 &
    pid=$!
    for ((i = 0; i < 100; i++)); do
        [ "$(cat "/proc/$pid/comm")" != sched ] || break
        sleep 0.1
    done
    sh "$service" alone 2>/dev/null || status=$?
    kill "$pid"
    wait "$pid" 2>/dev/null || true
    pid=
    [ "$status" -eq "$wanted" ] || fail "beside $what, \"service alone\" ended with $status"
}
alone_beside 1 'a scheduler of its own user' env
alone_beside 0 'a scheduler in other directories' env VGD_log=/l VGD_data=/d VGD_PIPE=/p
if [ "$(id -u)" -eq 0 ]; then
    # exec: the process in the background must be this one, and end with it.
    as() { exec setpriv --reuid="$1" --clear-groups "${@:2}"; }
    alone_beside 0 'a process of a user who only calls it sched' as 65534
    chown 65533 "$dir/log"
    alone_beside 1 "a scheduler of the service's user" as 65533
    alone_beside 1 'a scheduler of root' env
    chown 0 "$dir/log"
fi

# ---- service why -------------------------------------------------------------------------------------------------
cat >"$dir/log/sched_logerr" <<'END'
2026/11/25 09:00:00 thr:0000a1b2 Error:of an earlier start
2026/11/25 09:00:01 thr:0000a1b2 Info:sched:started (8.0.0-130207154512)
2026/11/25 09:00:01 thr:0000a1b2 Info:uptime open fails (path=/var/lib/sched/uptime errno=2)
2026/11/25 09:00:02 thr:0000a1b2 Error: bind failed. portno=9980 errno=98
END
printed=$(SERVICE_RESULT=exit-code EXIT_CODE=exited sh "$service" why 2>&1)
[ "$printed" = "$(tail -n 1 "$dir/log/sched_logerr")" ] || fail "\"service why\" printed: $printed"
