# Sourced by tests of examples: a test camera, and what goes at the end.
# shellcheck shell=bash

work=$(mktemp -d)
processes=()
# shellcheck disable=SC2317  # called by the trap
finish() {
  local process
  for process in "${processes[@]}"; do
    kill "$process" 2>/dev/null && wait "$process" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap finish EXIT

# Sets url, for who sources this. Usage: start_camera ORVANTA [OPTION...]
start_camera() {
  local camera
  : >"$work/camera"
  # What GStreamer keeps until its process ends is no leak of ours.
  ASAN_OPTIONS=detect_leaks=0 "$1" camera --port 0 "${@:2}" >"$work/camera" &
  camera=$!
  processes+=("$camera")
  # shellcheck disable=SC2034
  until read -r url _ <"$work/camera"; do
    kill -0 "$camera"
    sleep 0.1
  done
}
