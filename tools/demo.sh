#!/usr/bin/env bash
# `make demo`: a simulated recorder on a board. The master emulator (chip 0)
# starts the slaves, configures every camera's streams as a recorder does
# (REC 1920x1080 at 30 fps, REC LOW 704x576 at 15, NET LOW 352x288 at 15 and
# the recording copy), records them once every stream has begun, checks what
# arrives and writes one playable .h264 file per camera and stream. Camera 1
# stands still (board.conf) and camera 0 has a privacy mask over part of
# its picture; every camera's motion reports go to motion.log and one heat
# map per camera (slave<chip>/cam<NN>-motion.png) shows where things moved.
# Before it, a screen of nine cells is laid out on a slave of four cameras,
# with a PCI video channel of each kind, and that slave's part drawn as
# layout.png; after it, the first four cameras' recordings are played back
# through a slave's decoder (playback.txt). The recording ends by writing
# report.html, which shows all of it; its path is the last line printed.
#   tools/demo.sh <build dir> <board dir> <output dir>
# DEMO_SLAVES (default 1), DEMO_CAMERAS (default 8) and DEMO_SECONDS
# (default 30) change the run. The board's encoded scene loops (cache/) are
# kept from run to run, so only the first run waits for them to be made.
set -euo pipefail
build=$1
board=$2
out=$3
master="$build/tools/master/tarvo-master"
slave="$build/tarvo3532"
for f in "$master" "$slave"; do
  if [ ! -x "$f" ]; then
    echo "demo: $f is missing; build first (make build)" >&2
    exit 2
  fi
done
if [ -d "$board" ]; then
  find "$board" -mindepth 1 -maxdepth 1 ! -name cache -exec rm -rf {} +
fi
rm -rf "$out"
mkdir -p "$board"
printf '# written by make demo\ncamera 1 1920x1080 p 30 still\n' >"$board/board.conf"
mkdir -p "$out"
rc=0
"$master" layout --slave "$slave" --board "$board" --png "$out/layout.png" --cells 9 --narrow --pciv || rc=$?
"$master" record --slave "$slave" --board "$board" --out "$out" \
  --slaves "${DEMO_SLAVES:-1}" --cameras "${DEMO_CAMERAS:-8}" --seconds "${DEMO_SECONDS:-30}" \
  --md-threshold 10 --mask 0:0.375,0,0.25,1 --first-key-wait 240 || rc=$?
play_cameras=$(( ${DEMO_CAMERAS:-8} < 4 ? ${DEMO_CAMERAS:-8} : 4 ))
"$master" play --slave "$slave" --board "$board" --from "$out" --cameras "$play_cameras" \
  | tee "$out/playback.txt" || rc=$?
echo "== demo: recordings, snapshots and playback.txt in $out"
if [ -f "$out/report.html" ]; then
  echo "== demo: report: $out/report.html"
else
  echo "== demo: no report was written" >&2
  rc=1
fi
exit $rc
