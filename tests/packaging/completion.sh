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

of_bash() {
    local word=${1##*[ =]}
    [[ $1 != *= ]] || word='=' # bash takes "=" as a separate word
    bash -c 'source "$1"; COMP_LINE=$2; COMP_POINT=${#2}; _schedctl schedctl "$3"
        printf "%s\n" "${COMPREPLY[@]}"' - "$files/schedctl.bash" "$1" "$word"
}
of_fish() {
    fish -c "source $files/schedctl.fish; complete -C '$1'" | cut -f 1 | sed 's/^--[^=]*=//'
}
# Runs zsh on a terminal; its completion prints what it offers.
of_zsh() {
    cat >script <<'END'
zmodload zsh/zpty
zpty z zsh -f -i
zpty -w z "PS1=; fpath=($1 \$fpath); autoload -Uz compinit; compinit -u -d \$HOME/dump; source $HOME/offer"
zpty -w z "print READY"
zpty -r -m z line '*READY*READY*'
zpty -w -n z "$2"$'\t'
zpty -r -m z line '*<end>*'
print -r -- ${line#*<begin>}
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
    zsh -f script "$dir/functions" "$1" | tr -d '\r' | sed '/<end>/,$d'
}

# offers LINE WANTED...: all three shells offer at least these words for the line.
offers() {
    local line=$1 shell got word
    shift
    for shell in bash zsh fish; do
        got=$("of_$shell" "$line" | sort -u | tr '\n' ' ')
        for word; do
            [[ " $got" == *" $word "* ]] || { printf '%s: "%s" lacks "%s": %s\n' "$shell" "$line" "$word" "$got"; bad=1; }
        done
    done
}

offers 'schedctl ' watch follow metrics check status show parts slow
offers 'schedctl -p 9981 ' status far
offers 'schedctl --' --host --json
offers 'schedctl modcntl ' parts slow
offers 'schedctl -H localhost:9981 modcntl ' far
offers 'schedctl modcntl parts ' on off
offers 'schedctl check -' -w --critical --timeout-state
offers 'schedctl debug hmi ' all
offers 'schedctl show ' ip allowed_ip
offers 'schedctl --password-file a' afile
offers 'schedctl --password-file=' afile

# Every option of the help is offered, including those of single commands.
options=()
for word in '' $("$schedctl" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    for option in $("$schedctl" ${word:+$word} --help | sed -nE 's/^  (-[A-Za-z],)?(--[a-z-]+).*/\2/p'); do
        of_bash "schedctl ${word:+$word }$option" | grep -xe "$option" >/dev/null || { echo "not offered: $word $option"; bad=1; }
        options+=("$option")
    done
done
for option in "${options[@]}"; do
    [ "$option" = --help ] || grep -qE "Fl -${option#--}( |\$|,)" "${pages[@]}" || { echo "not in the manual: $option"; bad=1; }
done
rm state/schedctl/modules-*
for word in $("$schedctl" --complete '' | cut -f 1); do
    grep -qE "^\.?(Dq|Cm|.*Cm).*\b$word\b" "${pages[@]}" || { echo "not in the manual: $word"; bad=1; }
done
[ "$(SCHED_TIMEOUT=wrong "$schedctl" --hosts afile --list 2>&1)" = "schedctl: SCHED_TIMEOUT: wrong is not a number from 0 to 86400
Run with --help for more information." ] || { echo 'SCHED_TIMEOUT is not checked'; bad=1; }
exit "$bad"
