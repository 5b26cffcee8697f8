#!/usr/bin/env bash
# `make fuzz` / `make fuzz-short`: runs each libFuzzer target for the given
# time, one after the other, from its seed corpus (tests/fuzz/corpus/<target>)
# plus what earlier runs of this build tree added (<build>/corpus/<target>).
# Prints each target's inputs run and rate, then the total; fails when a
# target reports a crash, a sanitizer finding or a leak (the reproducer is
# left under <build>/artifacts/, the log under <build>/logs/).
#   tools/fuzz.sh <build dir> <seconds per target>
set -u
build=$1
seconds=$2
src=$(cd "$(dirname "$0")/.." && pwd)
targets=(fuzz_cmd fuzz_dec_intake)
declare -A max_len=([fuzz_cmd]=548 [fuzz_dec_intake]=32768)

mkdir -p "$build/artifacts" "$build/logs"
total=0
failed=""
for t in "${targets[@]}"; do
  bin="$build/tests/fuzz/$t"
  if [ ! -x "$bin" ]; then
    echo "make fuzz: $bin is missing" >&2
    exit 1
  fi
  corpus="$build/corpus/$t"
  log="$build/logs/$t.log"
  # The target's board directory goes here, so that one a crash left behind
  # is found and removed below.
  tmp="$build/tmp/$t"
  mkdir -p "$corpus" "$tmp"
  # Standard output carries the slave's traces: closed, as they would only
  # slow the run. Reports go to standard error, kept in the log.
  TMPDIR="$tmp" "$bin" -max_total_time="$seconds" -max_len="${max_len[$t]}" -close_fd_mask=1 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t-" "$corpus" "$src/tests/fuzz/corpus/$t" >"$log" 2>&1
  rc=$?
  # A crashed target cannot close its board: its host message queues
  # (chip<k>/msgq: system key, host key) are removed, then the directory.
  for board in "$tmp"/tarvo-fuzz-*; do
    [ -d "$board" ] || continue
    for q in "$board"/chip*/msgq; do
      [ -f "$q" ] || continue
      while read -r _ host; do ipcrm -Q "0x$host" 2>/dev/null; done <"$q"
    done
    rm -rf "$board"
  done
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  runs=${runs:-0}
  time_s=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  rate=$(( ${time_s:-0} > 0 ? runs / time_s : 0 ))
  findings=$(grep -cE "ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|==[0-9]+== ?ERROR" "$log")
  echo "$t: $runs inputs in ${time_s:-?} s ($rate/s), exit $rc, $findings findings"
  total=$((total + runs))
  if [ $rc -ne 0 ] || [ "$findings" -ne 0 ]; then
    failed="$failed $t"
    grep -E -A25 "ERROR:|runtime error:" "$log" | head -60 >&2
  fi
done
echo "make fuzz: $total inputs in total"
if [ -n "$failed" ]; then
  echo "make fuzz: failed:$failed (logs in $build/logs, reproducers in $build/artifacts)" >&2
  exit 1
fi
