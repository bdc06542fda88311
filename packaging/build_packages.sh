#!/bin/bash
# Builds the Debian packages: the library, its development files, the command line, the recorder.
# Usage: packaging/build_packages.sh [FOLDER]      FOLDER gets the packages (build/packages)
set -euo pipefail

# shellcheck source=scripts/setup.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/setup.sh"
packages=$(realpath -m "${1:-$root/build/packages}")

# shellcheck disable=SC2154  # set by setup.sh
install_packages "${build_packages[@]}" "${view_packages[@]}" "${play_packages[@]}" dpkg-dev
with_build_lock package build_preset package
mkdir -p "$packages"
rm -f "$packages"/*.deb
(cd "$root/build/package" && cpack -G DEB -B "$packages") >&2
rm -rf "$packages/_CPack_Packages"
ls "$packages"/*.deb
