#!/bin/bash
# A public ONVIF client, the npm package "onvif", against the test camera in the styles that it should
# cope with. Skipped where the package is not installed.
# Usage: public_client_test.sh PROJECT_DIR ORVANTA
set -euo pipefail

export NODE_PATH="$1/build/node_modules:${NODE_PATH:-}"
if ! node -e 'require("onvif")' 2>/dev/null; then
  echo "skipped: no public ONVIF client; npm install --prefix build onvif"
  exit 77
fi
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT
# What GStreamer keeps until its process ends is no leak of ours.
export ASAN_OPTIONS=detect_leaks=0

# A clock that is years off is no hindrance: the client asks for it first. It escapes no user name,
# and takes ASCII passwords only.
for style in plain prefixes,attributes pretty,sparse; do
  "$2" camera --port 0 --onvif 0 --no-discovery --onvif-style "$style" --onvif-clock 86400000 \
    --user 'näme <&>' --password 'p&"<w>'\'' %+' --json >"$work/$style" &
  until [[ -s $work/$style ]]; do sleep 0.05; done
  port=$(grep -o '"onvif_url":"http://127.0.0.1:[0-9]*' "$work/$style" | grep -o '[0-9]*$')
  echo "$style:"
  node "$(dirname "$0")/public_client.js" "$port" 'näme &lt;&amp;&gt;' 'p&"<w>'\'' %+'
done
"$2" camera --port 0 --onvif 0 --no-discovery --ptz --motion-every 1 --motion-length 0.5 --user admin --password pw \
  --json >"$work/moves" &
until [[ -s $work/moves ]]; do sleep 0.05; done
node "$(dirname "$0")/public_client.js" "$(grep -o '"onvif_url":"http://127.0.0.1:[0-9]*' "$work/moves" | grep -o '[0-9]*$')" \
  admin pw moves
