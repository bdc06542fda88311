# shellcheck shell=bash
# Turns a clone on a bare Debian 12 into a built tree. Sourced by ./run, ./test and .ci/run.
# Everything said here goes to standard error: standard output belongs to the program that is run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What the library and the command line are built with.
# shellcheck disable=SC2034
build_packages=(
  cmake ninja-build g++ pkg-config
  libssl-dev libcurl4-openssl-dev libasound2-dev libavcodec-dev libavutil-dev libswresample-dev libswscale-dev libavformat-dev
  libcli11-dev libtomlplusplus-dev nlohmann-json3-dev libpng-dev libturbojpeg0-dev libsndfile1-dev libsamplerate0-dev libmosquitto-dev
  libglib2.0-dev
  libgstrtspserver-1.0-dev libgstreamer-plugins-base1.0-dev libsoup-3.0-dev libxml2-dev
)
# What the viewer is built and run with, beside them.
# shellcheck disable=SC2034
view_packages=(libsdl2-dev libsdl2-ttf-dev libfontconfig-dev fonts-dejavu-core)
# What the test camera plays with.
# shellcheck disable=SC2034
play_packages=(
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  gstreamer1.0-plugins-ugly gstreamer1.0-libav
)
# What the tests are built with, and with their peers.
test_build_packages=("${build_packages[@]}" "${view_packages[@]}" libgtest-dev libgmock-dev)
test_packages=("${test_build_packages[@]}" "${play_packages[@]}" ffmpeg sox python3 curl openssl iproute2 procps
  dpkg-dev chromium chromium-driver firefox-esr python3-selenium mosquitto etcd-server etcd-client xvfb xauth xdotool)
# The slower checks of .ci/run.
# shellcheck disable=SC2034
ci_packages=(
  "${test_packages[@]}"
  git ccache clang clang-format clang-tidy libclang-rt-14-dev shellcheck libbenchmark-dev
  libmicrohttpd-dev libcivetweb-dev libsqlite3-dev apache2-utils nginx-light lintian
)

# Trees of one clone compile much alike: what one has compiled the other takes from the compiler cache.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

say() { printf 'orvanta: %s\n' "$*" >&2; }
die() {
  say "$*"
  exit 1
}

# Prints those of the named packages that are not installed.
missing_packages() {
  local package status
  local -A installed=()
  while read -r package status; do
    [[ $status == installed ]] && installed[$package]=1
  done < <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "$@" 2>/dev/null)
  for package in "$@"; do
    [[ -n ${installed[$package]:-} ]] || printf '%s\n' "$package"
  done
}

# Installs the named Debian packages where they are missing.
install_packages() {
  if ! command -v dpkg-query >/dev/null; then
    say "not a Debian system: expecting the counterparts of: $*"
    return
  fi
  local missing as_root=() log=$root/build/setup.log
  mkdir -p "$root/build"
  (
    flock 8 # apt-get does not wait for another one that is fetching the lists
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]})) || exit 0
    if ((EUID != 0)); then
      command -v sudo >/dev/null ||
        die "packages are missing and this user may not install them; as root: apt-get install ${missing[*]}"
      as_root=(sudo)
      [[ -t 2 ]] || as_root=(sudo -n) # nobody is there to type a password
    fi
    say "installing ${#missing[@]} packages: ${missing[*]}"
    apt() {
      "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y \
        -o DPkg::Lock::Timeout=600 "$@" </dev/null >>"$log" 2>&1 8>&- # a service it starts keeps no lock
    }
    : >"$log"
    apt update || say "the package lists could not be refreshed; trying with the old ones"
    if ! apt install --no-install-recommends "${missing[@]}"; then
      tail -n 20 "$log" >&2
      die "installing failed (log: $log); as root: apt-get install ${missing[*]}"
    fi
  ) 8>"$root/build/.setup.lock"
}

# while_installing PACKAGE... -- COMMAND...: installs packages while a command runs that needs none of them,
# the compiler as a rule; ends the script when one of the two fails.
while_installing() {
  local beside=() failed=0
  while [[ $1 != -- ]]; do
    beside+=("$1")
    shift
  done
  shift
  install_packages "${beside[@]}" &
  ("$@") || failed=$?
  wait $! || exit 1
  ((failed == 0)) || exit "$failed"
}

# build_preset PRESET [-DNAME=VALUE...] [--target TARGET...]: configures and builds build/PRESET with all
# cores. Meant to run under the preset's lock.
build_preset() {
  local preset=$1 directory=$root/build/$1 options=() quiet=()
  shift
  while [[ ${1:-} == -D* ]]; do
    options+=("$1")
    shift
  done
  local log=$directory.configure.log
  # A tree that was moved or copied keeps the old place in its cache, and cmake refuses it.
  if [[ -f $directory/CMakeCache.txt ]] &&
    ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$directory/CMakeCache.txt"; then
    rm -rf "$directory"
  fi
  if ! (cd "$root" && cmake --preset "$preset" "${options[@]}") >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    die "configuring failed (cmake --preset $preset)"
  fi
  [[ -t 2 ]] || quiet=(-- --quiet)
  cmake --build "$directory" "$@" "${quiet[@]}" >&2 </dev/null ||
    die "building failed (cmake --build build/$preset)"
}

# Calls FUNCTION ARGS... while no other run of these scripts works on build/PRESET.
with_build_lock() {
  local preset=$1
  shift
  mkdir -p "$root/build"
  (
    flock -n 9 || {
      say "waiting for another build of build/$preset"
      flock 9
    }
    "$@" 9>&-
  ) 9>"$root/build/.$preset.lock"
}
