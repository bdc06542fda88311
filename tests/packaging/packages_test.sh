#!/bin/bash
# Makes the Debian packages of a build tree and looks into them: what is where, what they depend on, what
# the man pages and the completion know. packaging/try_in_fresh_root.sh installs them, by hand.
# Usage: packages_test.sh BUILD_DIR
set -euo pipefail

build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAILED: $*"
  exit 1
}

(cd "$build" && cpack -G DEB -B "$work") >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
mapfile -t made < <(cd "$work" && printf '%s\n' *.deb)
architecture=$(dpkg --print-architecture)
version=$(sed -n 's/^orvanta-cms (\(.*\)) .*/\1/p;q' "$(dirname "${BASH_SOURCE[0]}")/../../packaging/changelog")
[[ ${made[*]} == "liborvanta-cms-dev_${version}_$architecture.deb liborvanta-cms0.1_${version}_$architecture.deb orvanta-cms-tools_${version}_$architecture.deb orvanta-cms-view_${version}_$architecture.deb orvanta-fleet_${version}_$architecture.deb orvanta-recorder_${version}_all.deb" ]] ||
  fail "made ${made[*]}, the changelog says $version"

field() { dpkg-deb --field "$work/$1_${version}"_*.deb "$2"; }
for package in liborvanta-cms0.1 liborvanta-cms-dev orvanta-cms-tools orvanta-cms-view orvanta-fleet orvanta-recorder; do
  dpkg-deb --extract "$work/${package}_${version}"_*.deb "$work/$package"
  (cd "$work/$package" && find . ! -type d | sort) >"$work/$package.files"
  documents=$work/$package/usr/share/doc/$package
  [[ -s $documents/copyright && $(zcat "$documents/changelog.Debian.gz") == *"($version)"* ]] || fail "$package: documents"
  [[ $(field "$package" Description | wc -l) -gt 2 && -n $(field "$package" Maintainer) ]] || fail "$package: control"
done

echo "== dependencies"
for needed in libc6 libavcodec libavformat libavutil libswresample libswscale libssl; do
  [[ ", $(field liborvanta-cms0.1 Depends)" == *", $needed"* ]] || fail "the library's package does not depend on $needed"
done
[[ $(field liborvanta-cms-dev Depends) == "liborvanta-cms0.1 (= $version)" ]] || fail "the development package's dependencies"
for needed in "liborvanta-cms0.1 (= $version)" libgstrtspserver-1.0-0 libpng16 libsndfile1; do
  [[ ", $(field orvanta-cms-tools Depends)" == *", $needed"* ]] || fail "the tools do not depend on $needed"
done
dpkg-deb --control "$work/${made[1]}" "$work/control"
grep -qx "liborvanta-cms 0.1 liborvanta-cms0.1 (>= .*)" "$work/control/shlibs" ||
  fail "the library's package does not say which library it has"
grep -qx 'activate-noawait ldconfig' "$work/control/triggers" || fail "nobody calls ldconfig"

[[ ", $(field orvanta-cms-tools Depends)" == *libsdl2* ]] && fail "the tools need a window system's library"
for needed in "orvanta-cms-tools (= $version)" libsdl2-2.0-0 libsdl2-ttf-2.0-0 libfontconfig1; do
  [[ ", $(field orvanta-cms-view Depends)" == *", $needed"* ]] || fail "the viewer does not depend on $needed"
done

echo "== contents"
[[ -x $work/orvanta-cms-view/usr/bin/orvanta-view ]] || fail "no viewer in its package"
grep -vE '^\./usr/(lib/([^/]+/)?liborvanta-cms\.so\.0(\.[0-9.]+)?|share/doc/liborvanta-cms0.1/.*)$' "$work/liborvanta-cms0.1.files" &&
  fail "the files above are in the library's package"
for wanted in include/cms/cms.h 'lib/.*liborvanta-cms\.so' 'lib/.*orvanta-cms-config\.cmake' 'lib/.*orvanta-cms\.pc' \
  'share/doc/.*/examples/live_client\.cpp' 'share/doc/.*/docs/rtsp\.md'; do
  grep -qxE "\./usr/$wanted" "$work/liborvanta-cms-dev.files" || fail "no $wanted in the development package"
done
grep -E '/internal/|\.cpp$' "$work/liborvanta-cms-dev.files" | grep -v /examples/ && fail "the files above are for nobody"
for binary in "$work"/liborvanta-cms0.1/usr/lib/**/liborvanta-cms.so.0.*.* "$work"/orvanta-cms-tools/usr/bin/* "$work"/orvanta-fleet/usr/bin/*; do
  [[ -f $binary ]] || continue
  readelf -S "$binary" | grep '\.debug_info' >/dev/null && fail "$binary carries debug information"
done

echo "== the recorder's service"
recorder=$work/orvanta-recorder
unit=$recorder/usr/lib/systemd/system/orvanta-recorder.service
cmp "$recorder/usr/share/doc/orvanta-recorder/examples/recorder.toml" "$(dirname "${BASH_SOURCE[0]}")/../../packaging/recorder.toml" ||
  fail "the example of the configuration"
[[ -s $recorder/usr/share/man/man8/orvanta-recorder.8.gz ]] || fail "the recorder's man page"
for needed in Type=notify User=orvanta ProtectSystem=strict WatchdogSec=30 ConditionPathExists=/etc/orvanta/recorder.toml; do
  grep -qx "$needed" "$unit" || fail "the unit does not say $needed"
done
if command -v systemd-analyze >/dev/null; then
  # It looks for the programs that the unit starts: here the package's own stand in.
  sed "s|^ExecStart=/usr/bin/orvanta|ExecStart=$work/orvanta-cms-tools/usr/bin/orvanta|" "$unit" >"$work/orvanta-recorder.service"
  systemd-analyze verify --man=no "$work/orvanta-recorder.service" 2>&1 | grep -F orvanta-recorder.service &&
    fail "systemd does not take the unit"
fi
dpkg-deb --control "$work/orvanta-recorder_${version}_all.deb" "$work/recorder_control"
for script in postinst prerm postrm; do
  [[ -x $work/recorder_control/$script ]] && sh -n "$work/recorder_control/$script" || fail "the recorder's $script"
done

echo "== man pages and completion"
orvanta=$build/tools/orvanta
export ASAN_OPTIONS=detect_leaks=0
page() { zcat "$work/orvanta-cms-tools/usr/share/man/man1/$1.1.gz" | sed 's/\\-/-/g'; }
options() { grep -oE '^  (-[a-z],)?--[a-z0-9-]+' | grep -oE -- '--[a-z0-9-]+'; }
# shellcheck source=/dev/null
source "$work/orvanta-cms-tools/usr/share/bash-completion/completions/orvanta"
completed() { # WORD...
  COMP_WORDS=(orvanta "$@") COMP_CWORD=$# COMPREPLY=()
  _orvanta
  printf '%s\n' "${COMPREPLY[@]}"
}
mapfile -t commands < <("$orvanta" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p')
((${#commands[@]} > 3)) || fail "the help shows the commands ${commands[*]}"
for command in "${commands[@]}"; do
  page orvanta | grep -F "orvanta-$command" >/dev/null || fail "orvanta(1) does not name $command"
  completed "" | grep -x -- "$command" >/dev/null || fail "$command is not completed"
  for option in $("$orvanta" "$command" --help | options); do
    page "orvanta-$command" | grep -F -- "$option" >/dev/null || fail "orvanta-$command(1) does not have $option"
    completed "$command" "$option" | grep -x -- "$option" >/dev/null || fail "$command $option is not completed"
  done
done
[[ $(completed live --transport t) == tcp ]] || fail "the words of an option are not completed"
[[ $(completed audio decode --codec mu) == mulaw ]] || fail "a command's command is not completed"
[[ -z $(completed live --snapshot a) ]] || fail "a file's name is completed with options"

echo "== the recorder's life"
life=0
"$(dirname "${BASH_SOURCE[0]}")/recorder_life_test.py" "$work" || life=$?
((life == 0 || life == 77)) || fail "the recorder's life"

if command -v lintian >/dev/null; then
  echo "== lintian"
  # A library that somebody builds for himself closes no bug, and its sanitizers are for its tests.
  lintian --allow-root --fail-on error --suppress-tags initial-upload-closes-no-bugs,bogus-mail-host \
    "$work"/*.deb || fail "lintian has errors"
fi
echo "all as expected"
