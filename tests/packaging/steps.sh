#!/usr/bin/env bash
# steps.sh SERVICE: tests the steps of the service, with a process that stands in for the scheduler.
set -euo pipefail
service=$1

fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
dir=$(mktemp -d)
mkdir "$dir/log" "$dir/data"
export VGD_log=$dir/log VGD_data=$dir/data VGD_PIPE=$dir/pipe MAINPID=
player='' stopping=''
trap 'kill $player $stopping 2>/dev/null || true; rm -rf "$dir"' EXIT

# play NAME COMMAND...: starts it; returns when it runs under this name. Sets player.
play() {
    "${@:2}" &
    player=$!
    for ((i = 0; i < 200; i++)); do
        read -r name <"/proc/$player/comm"
        [ "$name" != "$1" ] || return 0
        sleep 0.05
    done
    fail "$1 does not start"
}
cp "$(command -v sleep)" "$dir/sched"
cp "$(command -v sleep)" "$dir/other"
end_player() { kill "$player" && { wait "$player" || true; } 2>/dev/null; }

# pipe: makes one with its mode, whatever the mask, in the place of a file too; keeps one that is there.
for before in nothing file pipe; do
    [ $before = nothing ] || [ $before = pipe ] || { rm "$VGD_PIPE" && echo lost >"$VGD_PIPE"; }
    (umask 077 && sh "$service" pipe)
    [ "$(stat -c '%F %a' "$VGD_PIPE")" = 'fifo 660' ] || fail "with $before before, the pipe is $(stat -c '%F %a' "$VGD_PIPE")"
    inode=${inode:-$(stat -c %i "$VGD_PIPE")}
done
inode=$(stat -c %i "$VGD_PIPE")
sh "$service" pipe
[ "$(stat -c %i "$VGD_PIPE")" = "$inode" ] || fail 'a pipe that was there has been replaced'

# alone: only a process of that name with these directories counts.
sh "$service" alone || fail 'a scheduler is seen where none runs'
play other "$dir/other" 60
sh "$service" alone || fail 'another program is taken for a scheduler'
end_player
play sched env VGD_log=/a VGD_data=/b VGD_PIPE=/c "$dir/sched" 60
sh "$service" alone || fail 'a scheduler of other directories counts'
end_player
for shared in log data PIPE; do # one in common is enough
    own=VGD_$shared
    play sched env VGD_log=/a VGD_data=/b VGD_PIPE=/c "$own=${!own}" "$dir/sched" 60
    ! sh "$service" alone 2>"$dir/said" || fail "a second scheduler with the same $own may start"
    end_player
done
play sched "$dir/sched" 60
! said=$(sh "$service" alone 2>&1) || fail 'a second scheduler may start'
[[ $said == *"as process $player" ]] || fail "a second scheduler may not start: $said"
end_player
# Of other users, only root and the owner of the log count.
if [ "$(id -u)" -eq 0 ]; then
    chmod 755 "$dir"
    chown 65533 "$VGD_log"
    for user in 0 65533 65534; do
        play sched setpriv --reuid="$user" --clear-groups "$dir/sched" 60
        status=0
        sh "$service" alone 2>/dev/null || status=$?
        [ "$status" -eq $((user == 65534 ? 0 : 1)) ] || fail "beside a scheduler of user $user, alone ends with $status"
        end_player
    done
    chown 0 "$VGD_log"
fi

# stop: the message waits in the pipe for a scheduler that does not read yet, and the step for its end.
play sched "$dir/sched" 60
MAINPID=$player sh "$service" stop &
stopping=$!
sleep 0.7
kill -0 "$stopping" || fail 'stop does not wait for the end'
read -r -t 20 line <>"$VGD_PIPE" || fail 'the message that ends the scheduler is lost'
[[ $line == I0199:* ]] || fail "stop writes \"$line\""
end_player
wait "$stopping" || fail "stop ends with $?"
for pid in '' "$$"; do # already ended; no pipe
    [ -z "$pid" ] || rm "$VGD_PIPE"
    MAINPID=$pid timeout 20 sh "$service" stop || fail 'stop waits although nobody can end'
    [ ! -f "$VGD_PIPE" ] || fail 'stop makes a file in the place of the pipe'
done

# ready: a listening socket of the process or of its child; fails when the process has ended.
if command -v python3 >/dev/null; then
    listens='import socket, time; s = socket.create_server(("127.0.0.1", 0)); time.sleep(60)'
    connects='import socket, sys, time; a = socket.create_server(("127.0.0.1", 0)); b = socket.create_connection(a.getsockname()), a.accept(); a.close(); open(sys.argv[1], "x"); time.sleep(60)'
    for start in "exec python3 -c '$listens'" "python3 -c '$listens' & wait"; do
        sh -c "trap 'kill \$! 2>/dev/null; exit' TERM; $start" &
        player=$!
        MAINPID=$player timeout 30 sh "$service" ready || fail "ready does not see: $start"
        end_player
    done
    python3 -c "$connects" "$dir/connected" &
    player=$!
    for ((i = 0; i < 200; i++)); do
        [ ! -f "$dir/connected" ] || break
        sleep 0.05
    done
    [ -f "$dir/connected" ] || fail 'the connection for ready was not made'
    ! MAINPID=$player timeout 1 sh "$service" ready || fail 'ready takes a connection for a listening socket'
    end_player
    ! said=$(MAINPID=$player sh "$service" ready 2>&1) || fail 'ready does not see the end'
    [[ $said == *ended* ]] || fail "ready says \"$said\""
fi

# why: the errors since the last start, at most five, and only after a failure.
printf '%s\n' 'Error old' 'Info:sched:started' Warning 'bind failed' Error{1..5} >"$VGD_log/sched_logerr"
why() { env SERVICE_RESULT="$1" EXIT_CODE="$2" sh "$service" why 2>&1; }
[ "$(why exit-code exited)" = "$(printf 'Error%s\n' {1..5})" ] || fail "why prints $(why exit-code exited)"
printf '%s\n' 'Error old' 'Info:sched:started' ' Info:uptime open fails' 'bind failed' >"$VGD_log/sched_logerr"
[ "$(why exit-code exited)" = 'bind failed' ] || fail "why prints $(why exit-code exited)"
[ -z "$(why success exited)$(why exit-code '')" ] || fail 'why prints without a failure, or without a run'
