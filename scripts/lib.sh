# shellcheck shell=bash
# Functions of all scripts; sourced, never run. Sets $root and $logs, and changes to $root.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1
logs=$root/build-logs

heading() {
    printf '\n== %s ==\n' "$*"
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# ---- packages ------------------------------------------------------------------------------------------------------

# shellcheck disable=SC2034 # the scripts use them
build_packages=(g++ cmake ninja-build libcli11-dev libmicrohttpd-dev pkgconf nlohmann-json3-dev libedit-dev
    libbsd-dev libmd-dev)
unit_test_packages=(libgtest-dev libgmock-dev librapidcheck-dev)
client_test_packages=(python3-pytest python3-pexpect)
# shellcheck disable=SC2034
test_packages=("${build_packages[@]}" "${unit_test_packages[@]}" "${client_test_packages[@]}" rsyslog python3-croniter
    python3-prometheus-client libfaketime mandoc systemd zsh fish jq openipmi freeipmi-tools mdadm shellcheck
    systemd-container mmdebstrap debhelper)

# can_be_root: sudo may ask for a password only on a terminal.
can_be_root() {
    [ "$(id -u)" -eq 0 ] || sudo -n true 2>/dev/null || { [ -t 0 ] && sudo -v 2>/dev/null; }
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 \
        install --yes --no-install-recommends "$@"
}

# The package lists may be missing or old; they are fetched only after a first try has failed.
apt_install_fresh() {
    apt_install "$@" || { as_root apt-get -qq -o DPkg::Lock::Timeout=300 update && apt_install "$@"; }
}

# need_packages NAME...: installs the Debian packages that are missing; silent when none is.
need_packages() {
    local missing=() name
    command -v dpkg-query >/dev/null || return 0 # not Debian: the build will report what is missing
    for name in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    can_be_root || fail "these packages are missing, and only root can install them: apt-get install ${missing[*]}"
    logged install "installing ${missing[*]}" apt_install_fresh "${missing[@]}"
}

# need_sanitizer_runtime: the package of clang's sanitizers has clang's version in its name.
need_sanitizer_runtime() {
    need_packages clang
    ! echo 'int main() {}' | clang++ -fsanitize=address,undefined -x c++ -o /dev/null - 2>/dev/null || return 0
    need_packages "libclang-rt-$(clang -dumpversion | cut -d . -f 1)-dev"
}

# ---- building and testing ------------------------------------------------------------------------------------------

# A new build tree uses ninja and ccache if they are installed; an existing one keeps its generator.
use_fast_tools() {
    if command -v ninja >/dev/null; then
        export CMAKE_GENERATOR=${CMAKE_GENERATOR:-Ninja}
    fi
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
    fi
    export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
}

# progress_in LOG: the last line that begins with a count, as in the output of ninja and make, else the last line.
progress_in() {
    { tail -n 50 "$1" | grep '^\[' || cat "$1"; } | tail -n 1
}

# show_progress LOG: shows the progress, each second in the same line on a terminal, else each 20 seconds. It ends with
# the script, also when that is killed.
show_progress() {
    local started=$SECONDS shown=0 seconds
    while sleep 1 && kill -0 $$ 2>/dev/null; do
        seconds=$((SECONDS - started))
        if [ -t 1 ]; then
            printf '\r\033[K%.70s' "$(progress_in "$1")"
        elif [ $((seconds - shown)) -ge 20 ]; then
            printf '  %4d s  %.100s\n' "$seconds" "$(progress_in "$1")"
            shown=$seconds
        fi
    done
}

# logged NAME WHAT COMMAND...: runs the command, and prints WHAT, its progress and its time. The output goes to
# build-logs/NAME.log. When the command fails, the end of the log is shown and the script ends. A function stops at its
# first command that fails.
logged() {
    local name=$1 what=$2 log=$logs/$1.log started=$SECONDS status progress
    shift 2
    mkdir -p "$logs"
    printf '%s ...\n' "$what"
    : >"$log"
    show_progress "$log" &
    progress=$!
    set +e
    (set -e && "$@") >"$log" 2>&1 </dev/null
    status=$?
    set -e
    kill "$progress"
    wait "$progress" 2>/dev/null || true
    [ ! -t 1 ] || printf '\r\033[K'
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        fail "$what: failed with $status; the whole output is in ${log#"$root/"}"
    fi
    printf '  done in %d s\n' $((SECONDS - started))
}

# build_tree TREE CMAKE-ARGUMENT... [-- BUILD-ARGUMENT...]: configures and compiles.
build_tree() {
    local tree=$1 configure=()
    shift
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        configure+=("$1")
        shift
    done
    [ $# -eq 0 ] || shift
    logged "configure-$tree" "configuring $tree" cmake -S . -B "$tree" "${configure[@]}"
    logged "compile-$tree" "compiling $tree" cmake --build "$tree" "$@"
}

# tree_of PRESET: its build tree.
tree_of() {
    [ "$1" = release ] && echo build || echo "build-$1"
}

# configure_preset NAME: a tree that was configured for make is configured anew, because the presets use ninja.
configure_preset() {
    local fresh=()
    ! grep -qs '^CMAKE_GENERATOR:INTERNAL=Unix Makefiles' "$(tree_of "$1")/CMakeCache.txt" || fresh=(--fresh)
    logged "configure-$1" "configuring $1" cmake "${fresh[@]}" --preset "$1"
}

# build_preset NAME [BUILD-ARGUMENT...]: the same with one of CMakePresets.json.
build_preset() {
    configure_preset "$1"
    logged "compile-$1" "compiling $1" cmake --build --preset "$@"
}

# summarise LOG: prints the output of ctest, and before its summary the reasons of skipped tests.
summarise() {
    awk -v log_file="$1" '
        /^[0-9]+% tests passed/ { in_summary = 1 }
        in_summary { summary = summary $0 "\n"; next }
        { print; fflush() }
        END {
            while ((getline line <log_file) > 0) {
                if (line ~ /^[0-9]+\/[0-9]+ Test: /) { name = line; sub(/.* Test: /, "", name) }
                says_why = reason_follows || sub(/^(skipped:|SKIPPED \[1\] [^ ]*) /, "", line)
                if (says_why) print "skipped " name ": " line
                reason_follows = line ~ /: Skipped$/
            }
            printf "%s", summary
        }'
}

# test_preset NAME [CTEST-ARGUMENT...]: runs the tests of a built preset. Many wait for a daemon, so more of them run at
# once than there are processors. Some depend on time, which a busy machine may not have:
# each failed test runs once more, alone, and both results are in the output.
test_preset() {
    local run=() tree failed status=0
    tree=$(tree_of "$1") failed=$(tree_of "$1")/Testing/Temporary/LastTestsFailed.log
    # ThreadSanitizer cannot map its shadow memory when the kernel randomises addresses by more than 28 bits.
    if [ "$1" = tsan ] && [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)" -gt 28 ]; then
        run=(setarch -R)
    fi
    run_tests() {
        "${run[@]}" ctest --preset "$@" </dev/null | summarise "$tree/Testing/Temporary/LastTest.log"
    }
    printf 'testing %s ...\n' "$1"
    rm -f "$failed"
    run_tests "$@" --parallel "${TEST_JOBS:-$((4 * $(nproc)))}" || status=$?
    if [ $status -eq 8 ] && [ -s "$failed" ]; then # tests failed, and not ctest
        heading 'the tests that failed, once more, one at a time'
        status=0
        run_tests "$@" --rerun-failed || status=$?
    fi
    [ $status -eq 0 ] ||
        fail "a test of $1 failed; the output of the last run is in $tree/Testing/Temporary/LastTest.log"
}
