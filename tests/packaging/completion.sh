#!/usr/bin/env bash
# completion.sh DIR SCHEDCTL: with the files of DIR, bash, zsh and fish offer the right words for a line, and the list
# that these files are made from has every option of schedctl.
# shellcheck disable=SC2317 # the functions of the shells are called by name
set -euo pipefail
files=$1 schedctl=$2
for shell in zsh fish; do
    command -v "$shell" >/dev/null || { echo "skipped: $shell is missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
bad=0

# A schedctl with two modules, and with another one on port 9981.
cat >schedctl <<'END'
#!/bin/sh
case "$*" in *'-p 9981'*) echo 'far on' ;; *) printf 'parts on\nslow off\n' ;; esac
END
chmod +x schedctl
export PATH=$dir:$PATH HOME=$dir
: >afile

of_bash() {
    bash -c 'source "$1"; read -ra COMP_WORDS <<<"$2"; [[ $2 != *" " ]] || COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _schedctl; printf "%s\n" "${COMPREPLY[@]}"' - "$files/schedctl" "$1"
}
of_fish() {
    fish -c "source $files/schedctl.fish; complete -C '$1'" | cut -f 1
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
    zsh -f script "$files" "$1" | tr -d '\r' | sed '/<end>/,$d'
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

offers 'schedctl ' watch metrics check status show parts slow
offers 'schedctl -p 9981 ' status far
offers 'schedctl --' --host --json
offers 'schedctl modcntl ' parts slow
offers 'schedctl -p 9981 modcntl ' far
offers 'schedctl modcntl parts ' on off
offers 'schedctl check -' -w --critical --timeout-state
offers 'schedctl debug hmi ' all
offers 'schedctl show ' ip allowed_ip
offers 'schedctl --password-file a' afile

# Every option of the help is offered, including those of single commands.
for word in '' $("$schedctl" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    for option in $("$schedctl" ${word:+$word} --help | sed -nE 's/^  (-[A-Za-z],)?(--[a-z-]+).*/\2/p'); do
        of_bash "schedctl ${word:+$word }$option" | grep -xe "$option" >/dev/null || { echo "not in the list: $word $option"; bad=1; }
    done
done
exit "$bad"
