#!/usr/bin/env bash
# layers.sh ARCHITECTURE SRC: every room is in the table of layers, and includes only rooms of lower layers.
set -euo pipefail
cd "$2"
# shellcheck disable=SC2016
find . -name '*.h' -o -name '*.cpp' | sed 's|^\./||' | sort | xargs awk '
    function room(file) { sub(/\.(h|cpp)$/, "", file); return file }
    function complain(text) { print text; bad = 1 }
    FILENAME == table && /^\| [0-9]+ \|/ {
        split($0, cell, / *\| */)
        n = split(cell[3], rooms, /[` ]+/)
        for (i = 1; i <= n; i++) if (rooms[i] != "") layer[rooms[i]] = cell[2] + 0
    }
    FILENAME == table { next }
    FNR == 1 { of = room(FILENAME); seen[of] = 1; if (!(of in layer)) complain("not in the table: " of) }
    /^#include "/ {
        split($0, part, "\"")
        what = room(part[2])
        if (what != of && what in layer && layer[what] >= layer[of])
            complain(of " (" layer[of] ") includes " what " (" layer[what] ")")
    }
    END {
        for (name in layer) if (!(name in seen)) complain("in the table only: " name)
        exit bad
    }' table="$1" "$1"
