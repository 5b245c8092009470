#!/usr/bin/env bash
# manual_examples.sh SCHED SCHEDCHECK MODULES PAGE...: the scheduler reads the files, takes the events and gives the answers
# that the manual pages show. A display is marked by the comment before it: ".\" file: PATH", ".\" events",
# ".\" event_log" or ".\" conversation"; <TAB> in it stands for a tab.
set -euo pipefail
sched=$1 schedcheck=$2 modules=$3
shift 3

dir=$(mktemp -d) pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }

# displays MARK: the marked displays of all pages, in order.
displays() {
    awk -v mark=".\\\\\" $1" '$0 == mark { on = 1; next } on && /^\.Ed/ { on = 0 }
        on && !/^\.Bd/ { gsub(/<TAB>/, "\t"); gsub(/\\e/, "\\"); print }' "${pages[@]}"
}
# until_true COMMAND...: waits for it, at most 20 seconds.
until_true() {
    for ((i = 0; i < 200; i++)); do
        ! "$@" 2>/dev/null || return 0
        sleep 0.1
    done
    fail "waited in vain for: $*"
}
ended() { ! kill -0 "$pid"; }
listening_or_ended() { grep -q 'accepting socket' trace || ended; }
# alike: replaces numbers, which differ between runs.
alike() { sed -E 's/-?[0-9]+/N/g'; }

pages=("$@")
cd "$dir"
cp -r "$modules" bin
find bin/parts.d -type f -delete # no page shows what the checks find here; they are tried elsewhere
mkdir config data log temp update
for file in config/{sched.conf,common.ini,pvo.ini,vgd_modules,timer_jobs} data/password bin/{space,ehello,slow}; do
    displays "file: $file" >"$file"
    [ -s "$file" ] || fail "no page shows $file"
done
chmod +x bin/*
mkfifo pipe
export VGD_bin=$dir/bin VGD_config=$dir/config VGD_data=$dir/data VGD_log=$dir/log VGD_temp=$dir/temp \
    VGD_update=$dir/update VGD_PIPE=$dir/pipe
for ((try = 1; try <= 5; try++)); do
    port=$((10000 + RANDOM % 10000)) # the other tests use higher ones
    : >trace
    "$sched" -D -N 0 -p "$port" >>trace 2>&1 </dev/null & # it goes on while lines are added below
    pid=$!
    until_true listening_or_ended
    ended || break
done
cat log/sched_log >>trace # the trace before the options were read

# Files: the scheduler reads each line of data without an error.
while IFS='=' read -r key value; do
    grep -qF "key=\"${key% }\" value=\"${value# }\"" trace || fail "setting $key"
done < <(grep -h = config/sched.conf config/common.ini)
grep -qE 'modules:read done\. '"$(grep -c '^[a-z]' config/vgd_modules)"' entries' trace || fail 'module list'
[ "$(grep -c 'timer:job=' trace)" -eq "$(grep -vc '^#' config/timer_jobs)" ] || fail 'timer jobs'
grep -q 'need auth hash' trace || fail 'password file'
! grep -E 'Warning:modules|Error:timer' trace || fail 'a line that is shown was not understood'
"$schedcheck" || fail 'schedcheck finds fault with a file that is shown'

# Events come before an operator connects; then the conversations, on one connection while it lasts.
displays events >pipe
logged() { [ "$(alike <log/event_log)" = "$(displays event_log | alike)" ]; }
until_true logged
ignored() { [ "$(grep -c event:ignore trace)" -eq "$(displays events | grep -vcE '^(ALL;)?(MB;)?[EWIDM][0-9]{4}:')" ]; }
until_true ignored
exec 3<>"/dev/tcp/127.0.0.1/$port"
while IFS= read -r line; do
    case $line in
    '> '*) printf '%s\r' "${line#> }" >&3 ;;
    '< '*)
        IFS= read -r -t 20 answer <&3 || fail "no answer where the page has: $line"
        printf '%s\n' "$line" >>wanted
        printf '< %s\n' "${answer%$'\r'}" >>got
        ;;
    esac
done < <(displays conversation)
diff <(alike <wanted) <(alike <got) || fail 'the answers (>) are not those of the page (<)'
echo 'I0199:end' >pipe
wait "$pid" || fail "the scheduler ended with $?"
pid=
