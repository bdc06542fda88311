#!/bin/bash
# Installs a build tree, moves the result, and looks at it as its users do: headers that stand alone, a
# consumer through find_package and one through pkg-config, the command line.
# Usage: install_test.sh BUILD_DIR CXX SANITIZERS      (sanitizers of the library, or "")
set -euo pipefail

build=$1 cxx=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
flags=(-std=c++20 -Wall -Wextra -Werror)
# A library built with sanitizers needs a program that is, too.
sanitize=${3:+-fsanitize=$3}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/staging" >"$work/log"
mv "$work/staging" "$work/tree" # nothing installed may know where it was installed
tree=$work/tree
lib=$(dirname "$(find "$tree" -name liborvanta-cms.so)")

echo "== what is installed"
wrong=$(find "$tree" -path '*/internal/*' -o -path '*/include/*' -type f ! -name '*.h')
[[ -z $wrong ]] || { echo "must not be installed: $wrong"; exit 1; }
if grep -rlF -e "$work/staging" -e "$build" "$lib/cmake" "$lib/pkgconfig"; then
  echo "the files above name a folder of the build"
  exit 1
fi
readelf -d "$lib/liborvanta-cms.so" | grep 'SONAME.*liborvanta-cms\.so\.[0-9]' >/dev/null ||
  { echo "the library's name has no version"; exit 1; }

echo "== every header compiles on its own"
cd "$tree/include"
find cms -name '*.h' -print0 |
  xargs -0 -P 2 -I{} "$cxx" "${flags[@]}" -fsyntax-only -I. -include {} -x c++ /dev/null
cd "$work"

echo "== guides and examples"
for document in docs/rtsp.md examples/live_client.cpp; do
  [[ -f $tree/share/doc/orvanta-cms/$document ]] || { echo "no $document"; exit 1; }
done

echo "== find_package"
cmake -G Ninja -S "$here/consumer" -B "$work/by-cmake" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_CXX_FLAGS="$sanitize" -DCMAKE_PREFIX_PATH="$tree" >>"$work/log"
cmake --build "$work/by-cmake" -- --quiet
"$work/by-cmake/consumer"

echo "== pkg-config"
export PKG_CONFIG_PATH=$lib/pkgconfig
# shellcheck disable=SC2046,SC2086  # lists of words
"$cxx" "${flags[@]}" $sanitize "$here/consumer/main.cpp" -o "$work/by-pkg-config" \
  $(pkg-config --cflags --libs orvanta-cms)
LD_LIBRARY_PATH=$lib "$work/by-pkg-config"

if [[ -e $build/tools/orvanta ]]; then
  echo "== the command line"
  "$tree/bin/orvanta" --help >/dev/null
  "$tree/bin/orvanta-camera" --help >/dev/null
  mkdir "$work/alone"
  mv "$tree/bin/orvanta-camera" "$work/alone"
  error=$("$tree/bin/orvanta" camera --port 0 2>&1) && { echo "a camera without its program"; exit 1; }
  [[ $error == "orvanta camera: orvanta-camera"*cannot* && $error != *$'\n'* ]] || { echo "said: $error"; exit 1; }
  # From the path, and with the tool's name in what it says.
  error=$(PATH=$work/alone:$PATH "$tree/bin/orvanta" camera --port 0 --size 12x 2>&1) && { echo "a wrong size"; exit 1; }
  [[ $error == "orvanta camera: --size: "* ]] || { echo "said: $error"; exit 1; }
fi
