#!/bin/bash
# The recorder example records a test camera; after a signal its file is whole and in the databases.
# Usage: recorder_test.sh BUILD_DIR
set -euo pipefail

build=$1
# shellcheck source=tests/examples/camera.sh
. "$(dirname "$0")/camera.sh"
start_camera "$build/tools/orvanta" --delimiters off

"$build/examples/recorder" "$work/data" "$url" >"$work/lines" &
recorder=$!
processes+=("$recorder")
until grep -q 'camera 1: [1-9][0-9]* frames' "$work/lines"; do
  kill -0 "$recorder"
  sleep 0.2
done
kill -TERM "$recorder"
wait "$recorder"
unset "processes[-1]"
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
