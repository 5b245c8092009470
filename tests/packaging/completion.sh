#!/usr/bin/env bash
# completion.sh DIR SCHEDCTL PAGE...: with the files of DIR, bash, zsh and fish offer the right words for a line,
# without a connection to a scheduler, and every option of schedctl. The manual pages have all words and options.
# shellcheck disable=SC2317 # the functions of the shells are called by name
set -euo pipefail
files=$1 schedctl=$2
shift 2
pages=("$@")
for shell in zsh fish; do
    command -v "$shell" >/dev/null || { echo "skipped: $shell is missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
bad=0

# What the last listings of two schedulers have left.
export XDG_STATE_HOME=$dir/state PATH=$dir:$PATH HOME=$dir
unset SCHED_HOST SCHED_PORT SCHED_USER SCHED_TIMEOUT
mkdir -p state/schedctl
printf 'parts\nslow\n' >state/schedctl/modules-127.0.0.1:9980
echo far >state/schedctl/modules-127.0.0.1:9981
ln -s "$schedctl" schedctl
mkdir functions
ln -s "$files/schedctl.zsh" functions/_schedctl
printf 'db1\ndb2\n' >afile

# of_SHELL LINE...: for each line, "== LINE" and what this shell offers for it. Each shell starts once.
of_bash() {
    bash -c 'source "$1"; for line in "${@:2}"; do
            word=${line##*[ =]}
            [[ $line != *= ]] || word="=" # bash takes "=" as a separate word
            COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
            _schedctl schedctl "$word"
            printf "%s\n" "== $line" "${COMPREPLY[@]}"
        done' - "$files/schedctl.bash" "$@"
}
of_fish() {
    fish -c "source $files/schedctl.fish; for line in \$argv; echo \"== \$line\"; complete -C \$line; end" "$@" |
        cut -f 1 | sed 's/^--[^=]*=//'
}
# Runs zsh on a terminal; its completion prints what it offers.
of_zsh() {
    cat >script <<'END'
zmodload zsh/zpty
zpty z zsh -f -i
# compinit looks only at ours, because it reads a thousand files otherwise; the functions that ours calls are loaded.
zpty -w z "PS1=; all=(\$fpath); autoload -Uz compinit \$^fpath/_*(N:t); fpath=($1 \$^fpath/compaudit(N:h)); compinit -u -D; fpath=($1 \$all); source $HOME/offer"
zpty -w z "print READY"
zpty -r -m z text '*READY*READY*'
for line in "${@:2}"; do
    zpty -w -n z "$line"$'\t'
    zpty -r -m z text '*<end>*'
    print -r -- "== $line"$'\n'${text##*<begin>}
    zpty -w -n z $'\x15' # Ctrl-U deletes the line
done
END
    cat >offer <<'END'
compadd() {
    if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then builtin compadd "$@"; return; fi
    local -a hits
    builtin compadd -A hits "$@"
    offered+=($hits)
}
offer() { offered=(); _main_complete; print -r -- "<begin>"; print -rl -- $offered; print -r -- "<end>"; compstate[insert]=; compstate[list]=; }
zle -C offer complete-word offer
bindkey '^I' offer
END
    zsh -f script "$dir/functions" "$@" | tr -d '\r' | grep -v '^<end>'
}

# All three shells offer at least the words behind the bar for the line before it.
wanted='schedctl |watch follow metrics check status show parts slow
schedctl -p 9981 |status far
schedctl --|--host --json
schedctl modcntl |parts slow
schedctl -H localhost:9981 modcntl |far
schedctl modcntl parts |on off
schedctl check -|-w --critical --timeout-state
schedctl debug hmi |all
schedctl show |ip allowed_ip
schedctl --password-file a|afile
schedctl --password-file=|afile'
mapfile -t lines < <(cut -d '|' -f 1 <<<"$wanted")
for shell in bash zsh fish; do
    "of_$shell" "${lines[@]}" >offered
    declare -A got=()
    while IFS= read -r word; do
        if [[ $word == '== '* ]]; then
            line=${word#== } got[$line]=' '
        else
            got[$line]+="$word "
        fi
    done <offered
    while IFS='|' read -r line words; do
        for word in $words; do
            [[ ${got[$line]-} == *" $word "* ]] || { printf '%s: "%s" lacks "%s": %s\n' "$shell" "$line" "$word" "${got[$line]-}"; bad=1; }
        done
    done <<<"$wanted"
done

# Every option of the help is offered, including those of single commands.
options=() lines=()
for word in '' $("$schedctl" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    for option in $("$schedctl" ${word:+$word} --help | sed -nE 's/^  (-[A-Za-z],)?(--[a-z-]+).*/\2/p'); do
        lines+=("schedctl ${word:+$word }$option")
        options+=("$option")
    done
done
of_bash "${lines[@]}" | awk 'function end_line() { if (line != "") { print "not offered: " line; bad = 1 } }
    /^== / { end_line(); line = $0; option = $NF; next }
    $0 == option { line = "" }
    END { end_line(); exit bad }' || bad=1
in_manual=" $(grep -ohE 'Fl -[a-z-]+( |$|,)' "${pages[@]}" | tr -d , | cut -d ' ' -f 2 | tr '\n' ' ')"
for option in "${options[@]}"; do
    [ "$option" = --help ] || [[ $in_manual == *" -${option#--} "* ]] || { echo "not in the manual: $option"; bad=1; }
done
rm state/schedctl/modules-*
for word in $("$schedctl" --complete '' | cut -f 1); do
    grep -qE "^\.?(Dq|Cm|.*Cm).*\b$word\b" "${pages[@]}" || { echo "not in the manual: $word"; bad=1; }
done
[ "$(SCHED_TIMEOUT=wrong "$schedctl" --hosts afile --list 2>&1)" = "schedctl: SCHED_TIMEOUT: wrong is not a number from 0 to 86400
Run with --help for more information." ] || { echo 'SCHED_TIMEOUT is not checked'; bad=1; }
exit "$bad"
