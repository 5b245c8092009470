# shellcheck shell=bash
# Programs in the background and a scratch directory, $dir, for scripts that try things with several programs; sourced
# after lib.sh, never run. Everything ends with the script.

dir=$(mktemp -d)
pids=()
end_processes() {
    local status=$?
    trap - EXIT
    # Processes that end by themselves are waited for below; the others are killed after 5 seconds.
    kill -TERM "${pids[@]}" 2>/dev/null || :
    for ((i = 0; i < 50; i++)); do
        kill -0 "${pids[@]}" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "${pids[@]}" 2>/dev/null || :
    wait 2>/dev/null || :
    [ "$status" -eq 0 ] || tail -n 15 "$dir"/*.log >&2 || :
    rm -rf "$dir"
    exit "$status"
}
trap end_processes EXIT
trap 'exit 130' INT TERM

# start NAME COMMAND...: in the background, its output in NAME.log. Sets $last to its process.
start() {
    local name=$1
    shift
    "$@" >>"$dir/$name.log" 2>&1 </dev/null &
    last=$!
    pids+=("$last")
}

# Sets $found to a port that nobody listens on now, and that this script has not taken before.
taken=' '
free_port() {
    local port
    while :; do
        port=$((20000 + RANDOM % 12000))
        [[ $taken != *" $port "* ]] && ! { : <"/dev/tcp/127.0.0.1/$port"; } 2>/dev/null && break
    done
    taken+="$port "
    # shellcheck disable=SC2034 # the scripts use it
    found=$port
}

# until_true SECONDS WHAT COMMAND...
until_true() {
    local seconds=$1 what=$2 start=$SECONDS
    shift 2
    until "$@" >/dev/null 2>&1; do
        [ $((SECONDS - start)) -lt "$seconds" ] || fail "$what: not within $seconds s"
        sleep 0.5
    done
    printf '%-58s %3d s\n' "$what" $((SECONDS - start))
}

# start_scheduler NAME BINARY: starts a scheduler with modules that do nothing, in $dir/NAME. Sets $found to its port.
# Files that exist there are kept.
start_scheduler() {
    local home=$dir/$1 module
    mkdir -p "$home"/{bin,config,data,log,temp,update}
    # shellcheck disable=SC2154 # of lib.sh
    cp "$root"/config/{common.ini,pvo.ini,vgd_modules} "$home/config"
    [ -e "$home/config/timer_jobs" ] || : >"$home/config/timer_jobs"
    for module in parts prognosis diag devconf analysis confchg allmodcall qmx ehello; do
        [ ! -e "$home/bin/$module" ] || continue
        printf '#!/bin/sh\nexit 0\n' >"$home/bin/$module"
        chmod +x "$home/bin/$module"
    done
    mkfifo "$home/pipe"
    free_port
    start "$1" env SCHED_HARDWARE="$home/answers" VGD_bin="$home/bin" VGD_config="$home/config" VGD_temp="$home/temp" \
        VGD_update="$home/update" VGD_data="$home/data" VGD_log="$home/log" VGD_PIPE="$home/pipe" "$2" -D -N 0 -p "$found"
}

# The client keeps its files here.
export HOME=$dir XDG_STATE_HOME=$dir/state
