#!/bin/bash
# onvif-util, a public client (libonvif, in C), against the test camera: found by multicast in a network namespace, asked,
# and set. It knows neither events nor PTZ. Skipped where it is not installed.
# Usage: onvif_util_test.sh ORVANTA
set -euo pipefail

if [[ ${2:-} != inside ]]; then
  command -v onvif-util >/dev/null || { echo "skipped: no onvif-util; apt-get install onvif-tools"; exit 77; }
  unshare --net true 2>/dev/null || { echo "skipped: no network namespace to be had"; exit 77; }
  exec unshare --net "$0" "$1" inside
fi
ip link set lo multicast on up
ip address add 10.20.30.1/24 dev lo
ip route add 239.0.0.0/8 dev lo src 10.20.30.1
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT
ASAN_OPTIONS=detect_leaks=0 "$1" camera --bind 10.20.30.1 --port 8001 --onvif 80 --user admin --password pw \
  --json >"$work/start" &
until [[ -s $work/start ]]; do sleep 0.05; done

onvif-util -a | grep -F "10.20.30.1 camera(Orvanta test camera ORV-TC1)"
# It makes one nonce a second, and the camera takes each of them once.
for line in "" "get time" "get profiles" "get rtsp" "get video" "set framerate 12" "get video" "get imaging" "get network" quit; do
  sleep 1.5
  echo "$line"
done | timeout 60 onvif-util -u admin -p pw 10.20.30.1 >"$work/said"
for expected in "Time Offset: 0 seconds" "Token 1: Profile2" "rtsp://10.20.30.1:8001/" "Resolution: 640 x 360" "Frame Rate: 25" \
  "Frame Rate: 12" "Brightness: 50"; do
  grep -qF "$expected" "$work/said" || { echo "missing: $expected"; cat "$work/said"; exit 1; }
done
! grep -F ERROR "$work/said"
