#!/usr/bin/env bash
# `make demo`: a simulated recorder on a fresh board. The master emulator
# (chip 0) starts the slaves, shows each one's announcement and the DMA-info
# round trips, polls status, prints its summary and ends the slaves.
#   tools/demo.sh <build dir> <board dir>
# DEMO_SLAVES (default 1) and DEMO_SECONDS (default 5) change the run.
set -euo pipefail
build=$1
board=$2
master="$build/tools/master/tarvo-master"
slave="$build/tarvo3532"
for f in "$master" "$slave"; do
  if [ ! -x "$f" ]; then
    echo "demo: $f is missing; build first (make build)" >&2
    exit 2
  fi
done
rm -rf "$board"
exec "$master" demo --slave "$slave" --board "$board" \
  --slaves "${DEMO_SLAVES:-1}" --seconds "${DEMO_SECONDS:-5}"
