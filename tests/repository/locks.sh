#!/usr/bin/env bash
# locks.sh SOURCE: clang finds no access to guarded data without its lock (the annotations of src/util/mutex.h).
set -euo pipefail
cd "$1"
command -v clang++ >/dev/null || { echo 'skipped: clang++ is missing'; exit 77; }
check() { clang++ -std=c++20 -fsyntax-only -I. -Isrc -Wthread-safety -Werror=thread-safety "$@"; }
mapfile -t files < <(grep -rlE '\b(mutex_guard|GUARDED_BY|REQUIRES)\b' src --include='*.cpp')
[ "${#files[@]}" -gt 0 ] || { echo 'FAILED: no file uses a lock'; exit 1; }
# Together they read the library's headers once. Where that has errors, perhaps only because two files use the same name,
# each is checked alone.
printf '#include "%s"\n' "${files[@]}" | check -x c++ - 2>/dev/null && exit
for file in "${files[@]}"; do check "$file" || failed=1; done
exit "${failed:-0}"
