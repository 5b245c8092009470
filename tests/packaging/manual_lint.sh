#!/usr/bin/env bash
# manual_lint.sh DIRECTORY: mandoc finds nothing to say about the pages in it, and every page that one refers to is
# there.
set -euo pipefail

command -v mandoc >/dev/null || { echo 'skipped: mandoc is missing (package mandoc)'; exit 77; }
cd "$1" # where mandoc looks for the pages referred to
mandoc -Tlint ./*.[1-9]
