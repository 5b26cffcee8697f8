#!/usr/bin/env bash
# `make bench` runs every benchmark and fails when one of them fails: a
# directory of stand-in benchmarks, one failing, and one where all pass.
set -u
src=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/bad" "$dir/good" "$dir/none"
for d in bad good; do
  printf '#!/bin/sh\necho ran-a >> %s/ran\n' "$dir/$d" > "$dir/$d/bench_a"
  printf '#!/bin/sh\necho ran-c >> %s/ran\n' "$dir/$d" > "$dir/$d/bench_c"
done
printf '#!/bin/sh\necho ran-b >> %s/ran\nexit 3\n' "$dir/bad" > "$dir/bad/bench_b"
chmod +x "$dir"/*/bench_*
status=0
if make -s -C "$src" bench-run BENCH_DIR="$dir/bad" > "$dir/out" 2>&1; then
  echo "FAIL: a failing benchmark passed"; status=1
fi
grep -q "failed: bench_b" "$dir/out" || { echo "FAIL: the failing benchmark is not named"; cat "$dir/out"; status=1; }
[ "$(sort "$dir/bad/ran" | tr '\n' ' ')" = "ran-a ran-b ran-c " ] || { echo "FAIL: not every benchmark ran"; status=1; }
make -s -C "$src" bench-run BENCH_DIR="$dir/good" > "$dir/out" 2>&1 || { echo "FAIL: passing benchmarks failed"; cat "$dir/out"; status=1; }
if make -s -C "$src" bench-run BENCH_DIR="$dir/none" > "$dir/out" 2>&1; then
  echo "FAIL: no benchmark passed"; status=1
fi
exit $status
