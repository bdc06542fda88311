#!/bin/bash
# The HTTP server example: a page, a login, a stream, and a clean end.
# Usage: http_server_test.sh BUILD_DIR
set -euo pipefail

build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

user='op\era"tor'
coproc server { exec "$build/examples/http_server" 0 "$user" secret; }
# shellcheck disable=SC2154  # set by coproc
pid=$server_PID
read -r url <&"${server[0]}"

[[ $(curl -sS "$url") == *"log in"* ]]
[[ $(curl -sS --digest -u "$user:secret" "${url}auth/me" | python3 -c 'import json, sys; print(json.load(sys.stdin)["user"])') == "$user" ]]
[[ $(curl -sS --digest -u "$user:wrong" -o "$work/refused" -w '%{http_code}' "${url}auth/me") == 401 ]]
# The stream ends when the server does, and the server although somebody is listening.
curl -sS -N "${url}clock" >"$work/clock" &
listener=$!
until [[ $(wc -l <"$work/clock") -ge 2 ]]; do
  kill -0 "$listener"
  sleep 0.1
done
eval "exec ${server[1]}>&-"
wait "$pid"
wait "$listener" || true
[[ $(head -1 "$work/clock") =~ ^[0-9]{10}$ ]]

status=0
"$build/examples/http_server" 2>"$work/usage" || status=$?
[[ $status == 2 && $(wc -l <"$work/usage") == 1 ]]
