# shellcheck shell=sh
# Functions and settings that all modules share; each module reads this file first. It is not a module.
#
# The scheduler runs a module with the words of the command as arguments and with its own environment. Standard output
# goes to the client that sent the command, standard input is closed, standard error goes to /dev/null. Exit code 0:
# nothing to report; 2: the condition is present (for "qmx syslog forwarding": run the module again); any other: failed.

# To run a module by hand, set these as the scheduler's start does.
: "${VGD_config:?}" "${VGD_data:?}" "${VGD_log:?}" "${VGD_temp:?}" "${VGD_PIPE:?}"
export LC_ALL=C

# PARTS_ROOT is a directory with a sys/ and a proc/ of its own, to try the modules on a machine that was made up.
# shellcheck disable=SC2034
sys=${PARTS_ROOT:-}/sys
# shellcheck disable=SC2034
proc=${PARTS_ROOT:-}/proc

# usage TEXT: for a command the module does not know.
usage() {
    printf 'Usage: %s\n' "$1"
    exit 1
}

# value_of FILE [DEFAULT]: the first line of a file, which may have gone or refuse to be read.
value_of() {
    value=
    { read -r value; } 2>/dev/null <"$1" || :
    printf '%s' "${value:-${2:-}}"
}

# number_of FILE: the same where a number is needed; empty when there is none.
number_of() {
    value=$(value_of "$1")
    case ${value#-} in
    '' | *[!0-9]*) ;;
    *) printf '%s' "$value" ;;
    esac
}

# report CODE TEXT: writes an event for the scheduler. The pipe is opened for reading too, so that the open never
# waits when no scheduler is there.
report() {
    [ -p "$VGD_PIPE" ] || return 0
    printf '%s:%s\n' "$1" "$2" 1<>"$VGD_PIPE"
}

# replace FILE: writes standard input to a file that is complete at every moment.
replace() {
    cat >"$1.new" && mv -f "$1.new" "$1"
}
