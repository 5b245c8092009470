#!/usr/bin/env bash
# array.sh MODULES: a mirror over two loop devices loses a device. mdadm and the kernel tell it, and the check finds it.
set -euo pipefail
modules=$1
skip() { printf 'skipped: %s\n' "$*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip 'only root can make an array'
command -v mdadm >/dev/null || skip 'mdadm is missing'
[ -e /proc/mdstat ] || skip 'this kernel has no arrays (no /proc/mdstat)'

dir=$(mktemp -d) loops=() array=
clean_up() {
    [ -z "$array" ] || mdadm --quiet --stop "$array" || true
    for loop in "${loops[@]}"; do losetup --detach "$loop" || true; done
    rm -rf "$dir"
}
trap clean_up EXIT
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
cd "$dir"
for file in a b; do
    truncate --size 20M "$file"
    loops+=("$(losetup --find --show "$PWD/$file")") || skip 'no loop devices here'
done
for number in {121..127}; do
    [ -e "/sys/block/md$number" ] || break
done
mdadm --quiet --create "/dev/md$number" --run --metadata=1.2 --level=1 --raid-devices=2 "${loops[@]}" 2>error ||
    skip "no array can be made here: $(tail -n 1 error)"
array=/dev/md$number
export SCHED_HARDWARE=$dir/run SCHED_HARDWARE_STATE=$dir/state PARTS_KNOWN=/dev/null
mdadm --wait "$array" || true

"$modules/collect" sensors >collected
"$modules/parts.d/arrays" >found
! grep "array:md$number:" found || fail 'a good array is a fault'
grep -q "^seen.arrays.[1-9]" found || fail "the array was not seen: $(cat collected)"

mdadm --quiet "$array" --fail "${loops[1]}"
"$modules/collect" sensors >collected
"$modules/parts.d/arrays" >found
grep -q "^fault.array:md$number:degraded:1.md$number (raid1): array runs without 1" found || fail "$(cat found)"
grep -q "^fault.array:md$number:dev-${loops[1]#/dev/}.*faulty" found || fail "the device is not named: $(cat found)"
