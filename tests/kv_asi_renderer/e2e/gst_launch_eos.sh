#!/usr/bin/env bash
# The plain GStreamer pipeline of a file, as a user types it, through the virtual board:
# gst-launch-1.0 ends by itself once the file has played (the element posts EOS after the
# last packet is on the line), every packet is on the line, and the PCRs sit within
# 500 ns, paced by the PCRs and by tsparse's buffer stamps alike.
#
#   gst_launch_eos.sh <gst-launch-1.0> <kv-ts-generate> <kv-vboard-run> <kv-asi-analyze>
set -euo pipefail
launch=$1 generate=$2 board=$3 analyze=$4
if ! gst-inspect-1.0 tsparse >/dev/null 2>&1 || ! gst-inspect-1.0 clocksync >/dev/null 2>&1; then
  echo "tsparse or clocksync is not installed"
  exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$generate" --rate 20M --duration 2 -q -o "$dir/s.ts"
for tc in 0 1; do
  # A generous limit for a loaded machine; the run itself takes about 2.5 s.
  timeout --foreground 60 "$board" --capture "$dir/line.cap" -- \
    "$launch" -q filesrc location="$dir/s.ts" ! tsparse set-timestamps=true ! clocksync ! \
    kv_asi_renderer v4l2=/dev/kvasi0 latency=300 time-control=$tc >"$dir/log" 2>&1 ||
    { echo "time-control=$tc: gst-launch-1.0 did not end by itself"; cat "$dir/log"; exit 1; }
  "$analyze" "$dir/line.cap" --source "$dir/s.ts" --max-pcr-ac 500 >"$dir/report" ||
    { echo "time-control=$tc: PCR accuracy"; cat "$dir/report"; exit 1; }
  grep -q ' 0 missing, .* 0 unsent at the start, 0 unsent at the end' "$dir/report" ||
    { echo "time-control=$tc: not every packet was sent"; cat "$dir/report"; exit 1; }
  echo "time-control=$tc: $(grep 'drift removed' "$dir/report")"
done
