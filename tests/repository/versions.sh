#!/usr/bin/env bash
# versions.sh SOURCES VERSION: the changelogs of project and package start with the version that is built.
set -euo pipefail
cd "$1"
for newest in "$(sed -n 's/^## \[\([0-9.]*\)\].*/\1/p' CHANGELOG.md | head -n 1)" \
    "$(sed -n '1s/^sched (\(.*\)) .*/\1/p' debian/changelog)"; do
    [ "$newest" = "$2" ] || { printf 'FAILED: %s is built, but a changelog begins with "%s"\n' "$2" "$newest"; exit 1; }
done
