#!/bin/bash
# The recorder example records a test camera; after a signal its file is whole and in the databases.
# Usage: recorder_test.sh BUILD_DIR
set -euo pipefail

build=$1
work=$(mktemp -d)
camera=
recorder=
# shellcheck disable=SC2317  # called by the trap
finish() {
  local process
  for process in $camera $recorder; do
    kill "$process" 2>/dev/null && wait "$process" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap finish EXIT

: >"$work/camera"
# What GStreamer keeps until its process ends is no leak of ours.
ASAN_OPTIONS=detect_leaks=0 "$build/tools/orvanta" camera --port 0 --delimiters off >"$work/camera" &
camera=$!
url=
until read -r url _ <"$work/camera"; do
  kill -0 "$camera"
  sleep 0.1
done

"$build/examples/recorder" "$work/data" "$url" >"$work/lines" &
recorder=$!
until grep -q 'camera 1: [1-9][0-9]* frames' "$work/lines"; do
  kill -0 "$recorder"
  sleep 0.2
done
kill -TERM "$recorder"
wait "$recorder"
recorder=
cat "$work/lines"
"$build/tools/orvanta" inspect "$work"/data/recordings/*/*.drv | tee "$work/inspect"
grep -q '^  end  *whole' "$work/inspect"
grep -q '^  index .* 0 mismatches' "$work/inspect"
"$build/tools/orvanta" db --data "$work/data" | tee "$work/db"
grep -q '^Records: 1' "$work/db"
grep -q 'stopped by the user' "$work/db"

status=0
"$build/examples/recorder" "$work/data" nonsense 2>"$work/refused" || status=$?
[[ $status == 1 && $(wc -l <"$work/refused") == 1 ]]
