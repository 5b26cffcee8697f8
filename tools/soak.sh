#!/usr/bin/env bash
# `make soak`: the 8-camera recorder of `make demo` for SOAK_SECONDS (default
# 3600) with the slave and the master built with the address and undefined
# sanitizers. Samples the slave's resident memory every SOAK_SAMPLE seconds
# (default 60) into rss.csv, asks the slave for a leak check at the end
# (TARVO_SIM_LEAK_CHECK, see docs/board.md), and prints the figures: RSS
# after warm-up and at the end, its growth per hour, the leak check's
# verdict and any sanitizer report of either side. Fails on a report, a leak
# or a failed recording.
#   tools/soak.sh <asan build dir> <board dir> <output dir>
set -uo pipefail
build=$1
board=$2
out=$3
seconds=${SOAK_SECONDS:-3600}
sample=${SOAK_SAMPLE:-60}
master="$build/tools/master/tarvo-master"
slave="$build/tarvo3532"
for f in "$master" "$slave"; do
  [ -x "$f" ] || { echo "soak: $f is missing" >&2; exit 2; }
done
if [ -d "$board" ]; then
  find "$board" -mindepth 1 -maxdepth 1 ! -name cache -exec rm -rf {} +
fi
rm -rf "$out"
mkdir -p "$board" "$out"
board=$(cd "$board" && pwd)
# The board's encoded scene loops may be shared with the tests' cache.
if [ ! -e "$board/cache" ] && [ -n "${SIM_CACHE:-}" ]; then
  mkdir -p "$SIM_CACHE" && ln -s "$SIM_CACHE" "$board/cache"
fi

# The slave is found by its board in its environment: other recorders may
# run on the same host.
slave_pid() {
  local p
  for p in $(pgrep -x tarvo3532); do
    if tr '\0' '\n' <"/proc/$p/environ" 2>/dev/null | grep -qx "TARVO_BOARD=$board"; then
      echo "$p"
      return 0
    fi
  done
  return 1
}

echo "soak: $seconds s of 8 cameras under the address sanitizer; output in $out"
start=$(date +%s)
here=$(cd "$(dirname "$0")" && pwd)
LSAN_OPTIONS="suppressions=$here/soak.lsan:print_suppressions=1${LSAN_OPTIONS:+:$LSAN_OPTIONS}" \
ASAN_OPTIONS="${ASAN_OPTIONS:-quarantine_size_mb=32}" \
TARVO_SIM_LEAK_CHECK=1 "$master" record --slave "$slave" --board "$board" --out "$out" \
  --slaves 1 --cameras 8 --seconds "$seconds" --md-threshold 10 --mask 0:0.375,0,0.25,1 \
  --first-key-wait 600 >"$out/master.log" 2>&1 &
mpid=$!
echo "seconds,rss_kib" >"$out/rss.csv"
while kill -0 "$mpid" 2>/dev/null; do
  if p=$(slave_pid); then
    rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$p/status" 2>/dev/null)
    [ -n "$rss" ] && echo "$(( $(date +%s) - start )),$rss" >>"$out/rss.csv"
  fi
  for _ in $(seq "$sample"); do
    kill -0 "$mpid" 2>/dev/null || break
    sleep 1
  done
done
wait "$mpid"
rc=$?
cp "$board"/chip*.console "$out"/ 2>/dev/null

# Warm-up: the first tenth of the run (the pools and the scene loops fill).
awk -F, -v warm=$((seconds / 10)) -v secs="$seconds" '
  NR == 1 { next }
  { if (max == "" || $2 > max) max = $2 }
  $1 >= warm && base == "" { base = $2; t0 = $1 }
  { last = $2; t1 = $1 }
  END {
    if (base == "") { print "soak: no RSS sample after warm-up"; exit }
    growth = last - base
    per_h = (t1 > t0) ? growth * 3600 / (t1 - t0) : 0
    printf "soak: slave RSS after warm-up %.1f MiB, at the end %.1f MiB, peak %.1f MiB; growth %.1f MiB (%.1f MiB per hour)\n",
           base / 1024, last / 1024, max / 1024, growth / 1024, per_h / 1024
  }' "$out/rss.csv"
# The pools' counts (blocks and bytes held) early and at the end.
pools=$(grep -a -h "_calc_dma" "$out"/chip*.console 2>/dev/null)
echo "soak: pools after warm-up: $(echo "$pools" | sed -n 3p | sed 's/.*> //')"
echo "soak: pools at the end:    $(echo "$pools" | tail -1 | sed 's/.*> //')"
verdict=$(grep -a -h "sim: leak check:" "$out"/chip*.console 2>/dev/null | tail -1)
echo "soak: ${verdict:-sim: leak check: no verdict (the slave did not end by SIGTERM)}"
reports=$(grep -a -l -E "ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:" \
  "$out"/chip*.console "$out/master.log" 2>/dev/null)
[ -n "$reports" ] && echo "soak: sanitizer reports in: $reports"
# The recording's own verdict: frames lost per stream and the totals.
awk '$1 ~ /^[0-9]+$/ && NF >= 15 { streams++; lost += $11 } END { printf "soak: %d stream(s), %d frame(s) lost\n", streams, lost }' "$out/master.log"
grep -E "^== [0-9]+ (record|motion)" "$out/master.log"
[ $rc -eq 0 ] || { echo "soak: the recording failed (status $rc), see $out/master.log"; exit 1; }
[ -z "$reports" ] || exit 1
case "$verdict" in
  *"no leaks"*) exit 0 ;;
  *) exit 1 ;;
esac
