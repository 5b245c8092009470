#compdef schedctl
# Completion of schedctl.
_schedctl() {
    local -a found
    found=("${(@f)$(schedctl --complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
    case $found[1] in
    :file) compset -P '--*='; _files ;;
    :host) compset -P '--*='; _hosts ;;
    ?*)
        found=("${(@)found//:/\\:}")
        found=("${(@)found/$'\t'/:}")
        _describe schedctl found
        ;;
    esac
}

_schedctl "$@"
