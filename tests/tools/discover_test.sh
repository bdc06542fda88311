#!/bin/bash
# `orvanta discover` over multicast in a network namespace: several devices, one that answers twice,
# one with garbage in front, one with link-local addresses first, and a computer.
# Usage: discover_test.sh ORVANTA
set -euo pipefail

if [[ ${2:-} != inside ]]; then
  unshare --net true 2>/dev/null || { echo "skipped: no network namespace to be had"; exit 77; }
  exec unshare --net "$0" "$1" inside
fi
ip link set lo multicast on up
ip address add 10.20.30.1/24 dev lo
ip route add 239.0.0.0/8 dev lo src 10.20.30.1
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT

camera() { # NAME OPTIONS...
  local name=$1
  shift
  ASAN_OPTIONS=detect_leaks=0 "$orvanta" camera --bind 10.20.30.1 --json "$@" >"$work/$name" &
  until [[ -s $work/$name ]]; do sleep 0.05; done
}
orvanta=$1
camera plain --port 8001 --onvif 9001 --count 3
camera twice --port 8011 --onvif 9011 --onvif-style duplicates,garbage,prefixes
camera local --port 8012 --onvif 80 --onvif-style addresses,pretty,attributes
camera sparse --port 8013 --onvif 9013 --onvif-style sparse
camera computer --port 8014 --onvif 9014 --onvif-style computer

camera secured --port 8015 --onvif 9015 --onvif-tls --certificate "$work/camera.pem" --transports tcp

# As they are found, by every interface.
"$orvanta" discover --probe 2 >"$work/probed"
[[ $(grep -c 'address: 10.20.30.1' "$work/probed") == 7 ]] || { cat "$work/probed"; exit 1; }
grep -q 'host: https://10.20.30.1:9015' "$work/probed" || { cat "$work/probed"; exit 1; }

"$orvanta" discover --json >"$work/found"
found=$(python3 - "$work/found" <<'PYTHON'
import json, sys
for each in sorted(json.load(open(sys.argv[1]))["devices"], key=lambda each: int(each["port"])):
    print(*each.values(), sep="|")
PYTHON
)
name=$(grep -oE 'ORV-TC1\|[^|]*' <<<"$found" | head -n 1)
diff <(cat <<EXPECTED
10.20.30.1|80|$name|ORV-TC1
10.20.30.1|9001|$name|ORV-TC1
10.20.30.1|9002|$name|ORV-TC1
10.20.30.1|9003|$name|ORV-TC1
10.20.30.1|9011|$name|ORV-TC1
10.20.30.1|9013|ORV-TC1|IP Camera|ORV-TC1
EXPECTED
) <(printf '%s\n' "$found")
[[ $name == ORV-TC1\|Orvanta*test*camera ]]
