#!/bin/bash
# The playback example plays two recordings in step, and steps back through them.
# Usage: synchronous_playback_test.sh BUILD_DIR
set -euo pipefail

build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 100 pictures, 25 a second, behind frame headers: MJPEG, so that each is a key frame.
ffmpeg -v error -f lavfi -i testsrc2=size=160x96:rate=25 -frames:v 100 -c:v mjpeg -q:v 5 "$work/%03d.jpg"
python3 - "$work" <<'PYTHON'
import functools
import operator
import struct
import sys

work = sys.argv[1]
for site, start in ((1, 1700000000), (2, 1700000001)):
    drv = b""
    idx = b""
    for i in range(100):
        picture = open(f"{work}/{i + 1:03}.jpg", "rb").read()
        time = start * 1000 + i * 40
        first = b"@2\x10\x10" + struct.pack("<II", len(picture) + 32, time // 1000) + b"\0\x01\x01"
        second = struct.pack("<HHI", 0, 116, i + 1) + bytes(7)
        header = b""
        for half in (first, second):
            header += half + bytes([functools.reduce(operator.xor, half)])
        idx += struct.pack("<IIIIQII", 0, len(drv), 0, 0, time, 1, 0)
        drv += header + bytes(84) + picture
    open(f"{work}/{site}.drv", "wb").write(drv)
    open(f"{work}/{site}.idx", "wb").write(idx)
PYTHON

"$build/examples/synchronous_playback" 3 "$work/1.drv" "$work/2.drv" | tee "$work/lines"
# A busy machine may leave pictures out, but both sites were seen, and the steps are pictures.
grep -q '^clock .* site 1 .*brightness.* site 2 .*brightness' "$work/lines"
[[ $(tail -n 3 "$work/lines" | grep -c 'site 1 *+0 ms') == 3 ]]

status=0
"$build/examples/synchronous_playback" 1 "$work/none.drv" 2>"$work/refused" || status=$?
[[ $status == 1 ]] && grep -q 'none.drv: No such file' "$work/refused"
