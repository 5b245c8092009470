#!/usr/bin/env bash
# layers.sh ARCHITECTURE SRC: includes point to the same folder or to folders of higher rows in the page's table, and no
# components include each other in a circle. Every folder is in the table, and every component that the page mentions
# exists.
set -euo pipefail
page=$1
cd "$2"

# "component header", one include a line. A component is a header and a source of the same name, or one of them.
pairs() {
    grep -r '^#include "' --include='*.h' --include='*.cpp' |
        sed -E 's|^([^.]+)\.[a-z]+:#include "([^.]+)\.h".*|\1 \2|' | awk '$1 != $2'
}

failed=0
pairs | tsort >/dev/null || failed=1 # names the components of a circle
pairs | awk '
    function row_of(component) { sub(/[^\/]*$/, "", component); return component in row ? row[component] : 0 }
    function complain(text) { print text; bad = 1 }
    BEGIN { row[""] = 1000 } # main
    FNR == NR && /^\| [0-9]+ \|/ {
        split($0, cell, / *\| */)
        n = split(cell[3], names, /[` ]+/)
        for (i = 1; i <= n; i++) if (names[i] != "") row[names[i]] = cell[2] + 0
    }
    FNR == NR { next }
    !row_of($1) { complain("no row for the folder of " $1) }
    row_of($2) > row_of($1) { complain($1 " (row " row_of($1) ") includes " $2 " (row " row_of($2) ")") }
    END { exit bad }' "$page" - || failed=1
# shellcheck disable=SC2016 # backquotes of the page
while read -r component; do
    folder=${component%%/*}
    [ ! -d "$folder" ] || [ -e "$component.h" ] || [ -e "$component.cpp" ] ||
        { echo "mentioned, but no component: $component"; failed=1; }
done < <(grep -oE '`[a-z0-9]+/[a-z0-9_]+`' "$page" | tr -d '`')
exit "$failed"
