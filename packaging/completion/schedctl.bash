# shellcheck shell=bash
# Completion of schedctl.
_schedctl() {
    local words=()
    # Bash itself would split NAME:PORT and --host=NAME.
    read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
    [[ ${COMP_LINE:COMP_POINT-1:1} != [[:blank:]] ]] || words+=('')
    mapfile -t COMPREPLY < <(schedctl --complete "${words[@]:1}" 2>/dev/null | cut -f 1)
    case ${COMPREPLY[0]-} in
    :file) mapfile -t COMPREPLY < <(compgen -f -- "${2#=}") ;;
    :host) mapfile -t COMPREPLY < <(compgen -A hostname -- "${2#=}") ;;
    esac
}

complete -F _schedctl schedctl
