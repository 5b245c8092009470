#!/usr/bin/env bash
# manual_lint.sh DIRECTORY: mandoc reports nothing about the pages in it, every page that they refer to exists, and on a
# terminal of 80 columns each row of a table begins in one line: a cell that is wider than its column breaks the row.
set -euo pipefail

command -v mandoc >/dev/null || { echo 'skipped: mandoc is missing (package mandoc)'; exit 77; }
cd "$1" # mandoc looks for other pages here
mandoc -Tlint ./*.[1-9]
# groff, which man uses, measures the text of a column only up to an apostrophe.
! grep -n "^\.Bl -column.*'" ./*.[1-9] || { echo 'these columns have no width in groff'; exit 1; }

# first_cells PAGE: for each row of its tables, the first cell, a tab and the first word of the second.
first_cells() {
    awk '
        /^\.Bl -column/ { table = 1 }
        /^\.El/ { table = 0 }
        table && /^\.It .* Ta / {
            sub(/^\.It (Em )?/, "")
            split($0, cell, " Ta ")
            sub(/^Em /, "", cell[2])
            split(cell[2], word, " ")
            print cell[1] "\t" word[1]
        }' "$1"
}

failed=0
for page in *.[1-9]; do
    shown=$(mandoc -T ascii -O width=80 "$page" | col -bx)
    awk -F '\t' -v page="$page" '
        FNR == NR { shown[NR] = $0; next }
        {
            found = 0
            for (i in shown) {
                if (!(place = index(shown[i], $1))) continue
                rest = substr(shown[i], place + length($1))
                sub(/^ +/, "", rest)
                if (index(rest, $2) == 1) { found = 1; break }
            }
            if (!found) { print page ": the row \"" $1 "\" is broken at 80 columns"; bad = 1 }
        }
        END { exit bad }' - <(first_cells "$page") <<<"$shown" || failed=1
done
exit "$failed"
