#!/usr/bin/env bash
# Runs a simulated recorder on a fresh board and shows what it produced.
set -euo pipefail
build=$1
board=$2
rm -rf "$board"
mkdir -p "$board"
echo "== board: $board"
echo "== starting one slave (chip 1: cameras 0..7) for 3 seconds"
TARVO_BOARD="$board" TARVO_CHIP_ID=1 timeout 3 "$build/tarvo3532" slave 0 8 8 > "$board/chip1.console" 2>&1 || true
echo "== console of chip 1 ($board/chip1.console):"
cat "$board/chip1.console"
for f in shell.log var/log/message sched.log clock; do
  echo "== $board/chip1/$f:"
  cat "$board/chip1/$f"
done
echo "== next: the master emulator connects to the slave through $board/chip0.sock"
