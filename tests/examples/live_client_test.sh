#!/bin/bash
# The live example sees a test camera: pictures arrive, and the one that it saves shows something.
# Usage: live_client_test.sh BUILD_DIR
set -euo pipefail

build=$1
# shellcheck source=tests/examples/camera.sh
. "$(dirname "$0")/camera.sh"
start_camera "$build/tools/orvanta" --delimiters on --auth digest --user admin --password secret

# A busy machine is given more time.
for seconds in 4 15 60; do
  "$build/examples/live_client" "${url/:\/\//:\/\/admin:secret@}" "$seconds" "$work/seen.ppm" |
    tee "$work/lines" && break
done
[[ $(wc -l <"$work/lines") == "$seconds" ]]
python3 - "$work/seen.ppm" <<'PYTHON'
import sys

header, pixels = open(sys.argv[1], "rb").read().split(b"\n", 1)
assert header == b"P6 640 360 255" and len(pixels) == 640 * 360 * 3, header
colours = {pixels[i : i + 3] for i in range(0, len(pixels), 3)}
assert len(colours) > 100, f"{len(colours)} colours in the picture"
PYTHON

status=0
"$build/examples/live_client" "$url" 1 2>"$work/refused" || status=$?
cat "$work/refused"
[[ $status == 1 && $(wc -l <"$work/refused") == 1 ]]
