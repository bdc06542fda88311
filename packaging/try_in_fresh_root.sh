#!/bin/bash
# Installs the packages into a fresh Debian, where nothing of a developer's is, and tries them as their
# users do: an example is built and run, the command line is asked for help and pages, and everything is
# removed again. Needs root and the distribution's archive.
# Usage: packaging/try_in_fresh_root.sh [FOLDER]      FOLDER has the packages (build/packages)
set -euo pipefail

# shellcheck source=scripts/setup.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/setup.sh"
packages=$(realpath "${1:-$root/build/packages}")
((EUID == 0)) || die "only root can make a fresh root"
ls "$packages"/*.deb >/dev/null || die "no packages in $packages: run packaging/build_packages.sh first"
install_packages debootstrap

work=$(mktemp -d)
fresh=$work/root
# shellcheck disable=SC2317  # called by the trap
finish() {
  umount "$fresh/proc" 2>/dev/null || true
  rm -rf --one-file-system "$work"
}
trap finish EXIT

# shellcheck source=/dev/null
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
say "a fresh $codename in $fresh"
debootstrap --variant=minbase "$codename" "$fresh" >"$work/debootstrap.log" 2>&1 || {
  tail -n 20 "$work/debootstrap.log" >&2
  die "debootstrap failed"
}
cp /etc/resolv.conf "$fresh/etc/"
mount -t proc proc "$fresh/proc"
mkdir "$fresh/packages"
cp "$packages"/*.deb "$fresh/packages/"

cat >"$fresh/try.sh" <<'TRY'
#!/bin/bash
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C
say() { printf '== %s\n' "$*"; }
quietly() { "$@" >/log 2>&1 || { tail -n 30 /log; exit 1; }; }

say "the library alone"
quietly apt-get -y --no-install-recommends install /packages/liborvanta-cms0.1_*.deb
! command -v c++ >/dev/null
say "the command line"
quietly apt-get -y --no-install-recommends install /packages/orvanta-cms-tools_*.deb
orvanta --help >/help
orvanta-camera --help >/help
orvanta live rtsp://127.0.0.1:1/none --seconds 1 2>/error && exit 1
cat /error
[[ $(wc -l </error) == 1 ]]
[[ -s /usr/share/bash-completion/completions/orvanta ]]
say "the recorder"
quietly apt-get -y --no-install-recommends install /packages/orvanta-recorder_*.deb
getent passwd orvanta >/dev/null
[[ $(stat -c %U:%a /var/lib/orvanta) == orvanta:750 && $(stat -c %G:%a /etc/orvanta) == orvanta:750 ]]
sed 's|^data = .*|data = "/var/lib/orvanta/test"|' /usr/share/doc/orvanta-recorder/examples/recorder.toml >/etc/orvanta/recorder.toml
printf '[[sites]]\nnumber = 1\nurl = "rtsp://127.0.0.1:1/"\n' >>/etc/orvanta/recorder.toml
setpriv --reuid orvanta --regid orvanta --clear-groups orvanta record --config /etc/orvanta/recorder.toml --check
quietly dpkg -i /packages/orvanta-recorder_*.deb # an upgrade keeps what is configured
[[ -s /etc/orvanta/recorder.toml ]]
say "building"
quietly apt-get -y --no-install-recommends install /packages/liborvanta-cms-dev_*.deb g++ pkg-config cmake make
mkdir /example && cd /example
cp /usr/share/doc/liborvanta-cms-dev/examples/audio_codecs.cpp .
# shellcheck disable=SC2046
c++ -std=c++20 audio_codecs.cpp -o by_pkg_config $(pkg-config --cflags --libs orvanta-cms)
./by_pkg_config
cat >CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(example CXX)
find_package(orvanta-cms REQUIRED)
add_executable(by_cmake audio_codecs.cpp)
target_link_libraries(by_cmake PRIVATE orvanta::cms)
CMAKE
quietly cmake -S . -B build
quietly cmake --build build
build/by_cmake
say "and away"
quietly apt-get -y purge liborvanta-cms0.1 liborvanta-cms-dev orvanta-cms-tools orvanta-recorder
left=$(find /usr /etc -iname '*orvanta*')
[[ -z $left ]] || { echo "left behind: $left"; exit 1; }
say "all as expected"
TRY
chroot "$fresh" /bin/bash /try.sh
