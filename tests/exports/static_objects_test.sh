#!/bin/bash
# An application whose clients, servers and threads have static lifetime ends well at any moment.
# Usage: static_objects_test.sh BUILD_DIR
set -euo pipefail

build=$1
# shellcheck source=tests/examples/camera.sh
. "$(dirname "$0")/../examples/camera.sh"
start_camera "$build/tools/orvanta" --auth digest --user admin --password secret

for milliseconds in 0 150 400 700 1100 2000; do
  for ender in "" thread; do
    # A thread that is killed in the middle of its work may hold memory that nobody frees.
    # shellcheck disable=SC2086
    ASAN_OPTIONS=detect_leaks=0 timeout 60 "$build/tests/static_objects" \
      "${url/:\/\//:\/\/admin:secret@}" "$milliseconds" $ender || {
      echo "status $? after $milliseconds ms, ended by ${ender:-main}"
      exit 1
    }
  done
done

# Nothing of the library is destroyed when a process ends, except what drains the recordings.
mapfile -t objects < <(find "$build/cms" -name '*.o')
((${#objects[@]} > 0))
for object in "${objects[@]}"; do
  symbols=$(nm "$object")
  if [[ $symbols == *" U __cxa_atexit"* ]]; then
    echo "$object has a static object with a destructor, which threads may use while the process ends"
    exit 1
  fi
done
