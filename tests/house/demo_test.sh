#!/bin/bash
# The demo shows what it promises: pictures of all four cameras, lines while they run, whole
# recordings played and exported, no camera left.
# Usage: demo_test.sh PROJECT_DIR ORVANTA
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Its own name for the program, to find what the demo leaves running.
ln -s "$2" "$work/orvanta"
export ORVANTA=$work/orvanta OUT=$work/out
# What GStreamer keeps until its process ends is no leak of ours.
export ASAN_OPTIONS=detect_leaks=0

# A busy machine is given more time.
for seconds in 4 15 60; do
  "$1/scripts/demo.sh" "$seconds" >"$work/shown"
  cat "$work/shown"
  # The summary's last lines: number, codec, size, audio, frames, fps, kbit/s, lost, decoded ...
  seen=$(awk '/^#[1234] +(H264|JPEG) / && $5 > 0 && $9 > 0 { print $2, $3, $4 }' "$work/shown")
  [[ $(wc -l <<<"$seen") == 4 ]] && break
done
diff - <(printf '%s\n' "$seen") <<'EXPECTED'
H264 1280x720 PCMU
H264 640x360 PCMA
JPEG 320x240 L16
H264 640x360 -
EXPECTED
for camera in 1 2 3 4; do
  grep -q "^#$camera rtsp://.* fps .* kbit/s  lost [0-9]* .*decoded" "$work/shown"
  [[ $(head -c 4 "$OUT/camera-$camera.png") == $'\x89PNG' ]]
done
# Four whole recordings with their indexes, in the databases too.
[[ $(grep -c '^  end  *whole' "$work/shown") == 4 ]]
[[ $(grep -c '^  index .* 0 mismatches' "$work/shown") == 4 ]]
grep -q '^Records: 4' "$work/shown"
# The four sites in step, and five steps back from their end.
for sheet in in-step backward; do
  [[ $(head -c 4 "$OUT/$sheet.png") == $'\x89PNG' ]]
done
[[ $(grep -Ec '^ +[0-9]+ +0 +[1-9][0-9]* +0 +20' "$work/shown") == 8 ]]
[[ $(ffprobe -v error -select_streams v -show_entries stream=codec_name -of csv=p=0 "$OUT/door.mp4") == h264 ]]
# The name comes in a file, so that grep does not find itself.
if cat /proc/[0-9]*/cmdline 2>/dev/null | tr '\0' '\n' | grep -xF -f <(echo "$ORVANTA"); then
  echo "the demo left cameras running"
  exit 1
fi
