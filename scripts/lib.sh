# shellcheck shell=bash
# What the scripts share; sourced, never run. Sets $root and moves there.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1

heading() {
    printf '\n== %s ==\n' "$*"
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo -n "$@"
    fi
}

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 \
        install --yes --no-install-recommends "$@" </dev/null
}

# need_packages NAME...: installs the Debian packages that are missing; silent when none is.
need_packages() {
    local missing=() name log
    command -v dpkg-query >/dev/null || return 0 # not Debian: whatever is missing will be named by the build
    for name in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    printf 'installing %s\n' "${missing[*]}"
    log=$(mktemp)
    # The package lists may be absent or old; they are fetched only when the first try shows it.
    if ! apt_install "${missing[@]}" >"$log" 2>&1 &&
        ! { as_root apt-get -qq -o DPkg::Lock::Timeout=300 update </dev/null &&
            apt_install "${missing[@]}"; } >>"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        fail "could not install: ${missing[*]}"
    fi
    rm -f "$log"
}

# A new build tree uses ninja and ccache where they are; one that exists keeps its generator.
use_fast_tools() {
    if command -v ninja >/dev/null; then
        export CMAKE_GENERATOR=${CMAKE_GENERATOR:-Ninja}
    fi
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
    fi
    export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
}

# quietly COMMAND...: shows the output only when the command fails.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 </dev/null || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return "$status"
}

# build_preset NAME: configures and builds one of CMakePresets.json.
build_preset() {
    quietly cmake --preset "$1" && quietly cmake --build --preset "$1"
}

# test_preset NAME: runs the tests of a built preset. Most of them wait for a daemon rather than compute, so more
# of them run at once than there are processors.
test_preset() {
    local run=()
    # ThreadSanitizer cannot place its shadow where the kernel spreads mappings over more than 28 bits.
    if [ "$1" = tsan ] && [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)" -gt 28 ]; then
        run=(setarch -R)
    fi
    "${run[@]}" ctest --preset "$1" --parallel "${TEST_JOBS:-$((2 * $(nproc)))}" </dev/null
}
