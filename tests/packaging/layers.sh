#!/usr/bin/env bash
# layers.sh ARCHITECTURE SRC: every component is in the table of layers and includes only components of lower layers;
# between folders, includes follow the table of folders. A component that any other line mentions exists.
set -euo pipefail
cd "$2"
# shellcheck disable=SC2016
find . -name '*.h' -o -name '*.cpp' | sed 's|^\./||' | sort | xargs awk '
    function component(file) { sub(/\.(h|cpp)$/, "", file); return file }
    # The row of a component in the table of folders: its own row, else that of its folder.
    function row_of(name) {
        if (name in row) return row[name]
        sub(/[^\/]*$/, "", name)
        return row[name]
    }
    function complain(text) { print text; bad = 1 }
    FILENAME == table && /^\| F?[0-9]+ \|/ {
        split($0, cell, / *\| */)
        of_folders = sub(/^F/, "", cell[2])
        n = split(cell[3], names, /[` ]+/)
        for (i = 1; i <= n; i++) {
            if (names[i] == "") continue
            named[names[i]] = 1
            if (of_folders) row[names[i]] = cell[2] + 0; else layer[names[i]] = cell[2] + 0
        }
    }
    FILENAME == table {
        n = split($0, part, "`")
        for (i = 2; i <= n; i += 2) if (part[i] ~ /^[a-z0-9]+\/[a-z0-9_]+$/) mentioned[part[i]] = 1
        next
    }
    FNR == 1 {
        of = component(FILENAME)
        folder = of
        sub(/[^\/]*$/, "", folder)
        seen[of] = seen[folder] = 1
        if (!(of in layer)) complain("not in the table: " of)
        if (!row_of(of)) complain("no row for the folder of " of)
    }
    /^#include "/ {
        split($0, part, "\"")
        what = component(part[2])
        if (what == of) next
        if (!(what in layer)) complain(of " includes what is no component: " part[2])
        if (layer[what] >= layer[of]) complain(of " (" layer[of] ") includes " what " (" layer[what] ")")
        if (row_of(what) > row_of(of)) complain(of " (F" row_of(of) ") includes " what " (F" row_of(what) ")")
    }
    END {
        for (name in mentioned) {
            folder = name
            sub(/[^\/]*$/, "", folder)
            if (folder in seen && !(name in seen)) complain("mentioned, but no component: " name)
        }
        for (name in named) if (!(name in seen)) complain("in the table only: " name)
        exit bad
    }' table="$1" "$1"
