#!/bin/bash
# The demo: four test cameras on free ports, watched by one `orvanta live`: a line a second for each,
# then a summary, and a picture of what each camera saw. Meanwhile `orvanta record` records them; the
# files, an index and the databases that it made are shown, played in step and exported at the end.
# Usage: demo.sh [SECONDS]      ORVANTA: the program, OUT: where the pictures and recordings go
set -euo pipefail

# shellcheck source=scripts/setup.sh
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
seconds=${1:-10}
orvanta=${ORVANTA:-$root/build/release/tools/orvanta}
out=${OUT:-$root/out}

work=$(mktemp -d)
cameras=()
finish() {
  kill "${cameras[@]}" 2>/dev/null && wait "${cameras[@]}" 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT

# Starts a test camera and adds its URL to urls.
urls=()
start_camera() { # OPTIONS...
  local name=$work/camera.${#cameras[@]} url='' tries
  : >"$name"
  "$orvanta" camera --port 0 "$@" >"$name" 2>"$name.err" &
  cameras+=($!)
  for ((tries = 0; tries < 300; ++tries)); do
    read -r url _ <"$name" && break
    kill -0 "${cameras[-1]}" 2>/dev/null || break
    sleep 0.1
  done
  [[ -n $url ]] || {
    cat "$name.err" >&2
    die "a test camera did not start: orvanta camera --port 0 $*"
  }
  urls+=("$url")
}

start_camera --path /door --pattern smpte --size 1280x720 --profile high --delimiters on --audio pcmu
start_camera --path /yard --pattern ball --auth digest --user admin --password secret --audio pcma
start_camera --path /hall --pattern snow --codec mjpeg --size 320x240 --fps 10 --audio l16
start_camera --path /gate --pattern circular --size 640x360 --fps 15
# Where the camera asks for a password, the URL carries it.
urls[1]=${urls[1]/:\/\//:\/\/admin:secret@}

cat <<TEXT
Four test cameras are running:
  ${urls[0]}                 H.264 high 1280x720, PCMU, to be received over UDP
  ${urls[1]}    H.264 baseline 640x360, PCMA, over interleaved TCP with a Digest password
  ${urls[2]}                 MJPEG 320x240, L16, over UDP
  ${urls[3]}                 H.264 baseline 640x360, 15 pictures a second, over UDP

\$ orvanta record URL... --transport tcp --data out/data --seconds $seconds &
\$ orvanta live URL... --transport udp,tcp,udp,udp --seconds $seconds --snapshot out/camera.png
TEXT

mkdir -p "$out"
rm -rf "$out"/camera-[1234].png "$out/data"
status=0
"$orvanta" record "${urls[@]}" --transport tcp --data "$out/data" --seconds "$seconds" \
  >"$work/recorded" 2>&1 &
recording=$!
cameras+=("$recording")
"$orvanta" live "${urls[@]}" --transport udp,tcp,udp,udp --seconds "$seconds" \
  --snapshot "$out/camera.png" || status=$?
printf '\nWhat the cameras saw:\n'
printf '%s\n' "${out#"$PWD"/}"/camera-*.png
wait "$recording" || status=$?
unset 'cameras[-1]'
printf '\nWhat was recorded:\n'
grep -v '^#' "$work/recorded" || true
for file in "$out"/data/recordings/*/*.drv; do
  [[ -e $file ]] || continue
  printf '\n$ orvanta inspect %s\n' "${file#"$PWD"/}"
  "$orvanta" inspect "$file" || status=$?
done
printf '\n$ orvanta db --data %s\n' "${out#"$PWD"/}/data"
"$orvanta" db --data "$out/data" || status=$?

# Each site is a column, each second a row; backward each picture is one.
play() { # SHEET ARGUMENTS...
  local sheet=$out/$1
  shift
  printf '\n$ orvanta play --data %s %s --contact-sheet %s\n' "${out#"$PWD"/}/data" "$*" "${sheet#"$PWD"/}"
  rm -f "$sheet"
  "$orvanta" play --data "$out/data" "$@" --contact-sheet "$sheet" || status=$?
}
play in-step.png --seconds 4
play backward.png --step -5

for file in "$out"/data/recordings/*/Rec_Site1_*.drv; do
  [[ -e $file ]] || continue
  printf '\n$ orvanta export %s %s\n' "${file#"$PWD"/}" "${out#"$PWD"/}/door.mp4"
  "$orvanta" export "$file" "$out/door.mp4" || status=$?
  break
done
exit "$status"
