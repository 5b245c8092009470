#!/usr/bin/env bash
# steps.sh SERVICE TMPFILES CONFIG: the steps of the service, with a process that only plays the scheduler, and the modes
# of the files that systemd creates.
set -euo pipefail
service=$1 tmpfiles=$(realpath "$2") config=$3 # of a relative path systemd-tmpfiles takes the name alone

fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
dir=$(mktemp -d)
mkdir "$dir/log" "$dir/data"
export VGD_log=$dir/log VGD_data=$dir/data VGD_PIPE=$dir/pipe MAINPID=
player='' stopping=''
trap 'kill $player $stopping 2>/dev/null || true; rm -rf "$dir"' EXIT

# play NAME PROGRAM...: starts a program under this name; sets player.
play() {
    cp "$(command -v "$2")" "$dir/$1"
    "$dir/$1" "${@:3}" &
    player=$!
}
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
play other sleep 60
sh "$service" alone || fail 'another program is taken for a scheduler'
end_player
VGD_log=/a VGD_data=/b VGD_PIPE=/c play sched sleep 60
sh "$service" alone || fail 'a scheduler of other directories counts'
end_player
for shared in log data PIPE; do # one in common is enough
    own=VGD_$shared
    env VGD_log=/a VGD_data=/b VGD_PIPE=/c "$own=${!own}" "$dir/sched" 60 &
    player=$!
    sleep 0.2
    ! sh "$service" alone 2>"$dir/said" || fail "a second scheduler with the same $own may start"
    end_player
done
play sched sleep 60
sleep 0.2
! said=$(sh "$service" alone 2>&1) || fail 'a second scheduler may start'
[[ $said == *"as process $player" ]] || fail "a second scheduler may not start: $said"

# stop: the message waits in the pipe for a scheduler that does not read yet, and the step for its end.
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
    connects='import socket, time; a = socket.create_server(("127.0.0.1", 0)); b = socket.create_connection(a.getsockname()); a.close(); time.sleep(60)'
    for start in "exec python3 -c '$listens'" "python3 -c '$listens' & wait"; do
        sh -c "trap 'kill \$! 2>/dev/null; exit' TERM; $start" &
        player=$!
        MAINPID=$player timeout 30 sh "$service" ready || fail "ready does not see: $start"
        end_player
    done
    python3 -c "$connects" &
    player=$!
    ! MAINPID=$player timeout 2 sh "$service" ready || fail 'ready takes a connection for a listening socket'
    end_player
    ! said=$(MAINPID=$player sh "$service" ready 2>&1) || fail 'ready does not see the end'
    [[ $said == *ended* ]] || fail "ready says \"$said\""
fi

# why: the errors since the last start, at most five, and only after a failure.
printf '%s\n' 'Error old' 'Info:sched:started' Warning 'bind failed' Error{1..5} >"$VGD_log/sched_logerr"
why() { env SERVICE_RESULT="$1" EXIT_CODE="$2" sh "$service" why 2>&1; }
[ "$(why exit-code exited)" = "$(printf 'Error%s\n' {1..5})" ] || fail "why prints $(why exit-code exited)"
printf '%s\n' 'Error old' 'Info:sched:started' Warning 'bind failed' >"$VGD_log/sched_logerr"
[ "$(why exit-code exited)" = 'bind failed' ] || fail "why prints $(why exit-code exited)"
[ -z "$(why success exited)$(why exit-code '')" ] || fail 'why prints without a failure, or without a run'

# The files of systemd-tmpfiles, in a tree of their own.
command -v systemd-tmpfiles >/dev/null || { echo 'skipped in part: systemd-tmpfiles is missing (package systemd)'; exit 77; }
[ "$(id -u)" -eq 0 ] || { echo 'skipped in part: only root can give files away'; exit 77; }
tree=$dir/tree
mkdir -p "$tree/etc" "$tree$config" "$tree/run" "$tree/var/lib" "$tree/var/log"
echo 'root:x:0:0::/root:/bin/sh' >"$tree/etc/passwd"
echo 'sched:x:990:990::/var/lib/sched:/bin/sh' >>"$tree/etc/passwd"
printf '%s\n' root:x:0: sched:x:990: >"$tree/etc/group"
systemd-tmpfiles --create --root="$tree" "$tmpfiles" 2>"$dir/said" || true
wanted=$(sort -k 4 <<X
1770 0 990 $config
750 990 990 /run/sched
660 990 990 /run/sched/pipe
750 990 990 /run/sched/temp
750 990 990 /var/lib/sched
750 990 990 /var/lib/sched/update
2770 0 990 /var/lib/schedctl
750 990 990 /var/log/sched
X
)
got=$(cd "$tree" && find ".$config" ./run/* ./var/*/* -printf '%m %U %G %p\n' | sed 's, \./, /,' | sort -k 4)
[ "$got" = "$wanted" ] || fail "systemd-tmpfiles makes
$got
$(cat "$dir/said")"
