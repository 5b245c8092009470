#!/usr/bin/env bash
# manual_lint.sh DIRECTORY: mandoc reports nothing about the pages in it, and every page that they refer to exists.
set -euo pipefail

command -v mandoc >/dev/null || { echo 'skipped: mandoc is missing (package mandoc)'; exit 77; }
cd "$1" # mandoc looks for other pages here
mandoc -Tlint ./*.[1-9]
