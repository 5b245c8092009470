#!/usr/bin/env bash
# locks.sh SOURCE: clang finds no access to guarded data without its lock (the annotations of src/util/mutex.h).
set -euo pipefail
cd "$1"
command -v clang++ >/dev/null || { echo 'skipped: clang++ is missing'; exit 77; }
grep -rlE '\b(mutex_guard|GUARDED_BY|REQUIRES)\b' src --include='*.cpp' |
    xargs -n 1 -P 2 clang++ -std=c++20 -fsyntax-only -Isrc -Wthread-safety -Werror=thread-safety
