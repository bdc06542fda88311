#!/bin/bash
# ./run in a copied tree with a stand-in for cmake, whose "build" copies tools/main.sh to the program:
# when does it build, and is what it starts what was asked for?
# Usage: run_script_test.sh PROJECT_DIR
set -euo pipefail

project=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree="$work/a tree"
mkdir -p "$tree"/{scripts,cms/net,tools} "$work/bin"
cp "$project/run" "$tree/"
cp "$project/scripts/setup.sh" "$tree/scripts/"
echo 'int a;' >"$tree/cms/net/a.cpp"
# shellcheck disable=SC2016
echo 'printf "%s|" "$PWD" "$@"; exit 7' >"$tree/tools/main.sh"

cat >"$work/bin/cmake" <<'CMAKE'
#!/bin/bash
echo "noise of the build"
case $1 in
  --preset) mkdir -p build/release/tools ;;
  --build)
    echo built >>"$BUILDS"
    echo "$@" >"$BUILDS.last"
    sleep "${BUILD_SECONDS:-0}"
    [[ -z ${BUILD_FAILS:-} ]] || exit 1
    { echo '#!/bin/bash'; cat "$2/../../tools/main.sh"; } >"$2/tools/orvanta"
    chmod +x "$2/tools/orvanta" ;;
esac
CMAKE
# Every package is installed here.
cat >"$work/bin/dpkg-query" <<'QUERY'
#!/bin/bash
echo asked >>"$BUILDS.queries"
shift 2
printf '%s installed\n' "$@"
QUERY
chmod +x "$work/bin/"*
export PATH="$work/bin:$PATH" BUILDS="$work/builds"
: >"$BUILDS"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# Runs ./run from another folder and checks the number of builds so far, the status and the output.
expect_run() { # WHAT BUILDS STATUS
  local status=0 output builds
  output=$(cd "$work/bin" && "$tree/run" say 'two words' 2>"$work/stderr") || status=$?
  builds=$(wc -l <"$BUILDS")
  [[ $builds == "$2" ]] || fail "$1: $builds builds, expected $2"
  [[ $status == "$3" ]] || fail "$1: status $status, expected $3"
  if [[ $3 == 7 ]]; then
    [[ $output == "$work/bin|say|two words|" ]] || fail "$1: the program was given: $output"
  else
    [[ -z $output ]] || fail "$1: standard output of a failed build: $output"
  fi
}

expect_run "first run" 1 7
queries=$(wc -l <"$BUILDS.queries")
expect_run "nothing changed" 1 7
[[ $(wc -l <"$BUILDS.queries") == "$queries" ]] || fail "an unchanged tree asks for packages"

echo 'int b;' >>"$tree/cms/net/a.cpp"
expect_run "edited file" 2 7
echo 'int c;' >"$tree/cms/net/c.cpp"
expect_run "added file" 3 7
rm "$tree/cms/net/c.cpp"
expect_run "deleted file" 4 7
echo 'int d;' >"$work/old.cpp"
touch -d '2001-01-01' "$work/old.cpp"
cp -p "$work/old.cpp" "$tree/cms/net/a.cpp"
expect_run "file replaced by an older one" 5 7
mkdir "$tree/cms/live"
expect_run "added folder" 6 7
expect_run "nothing changed again" 6 7

rm "$tree/build/release/tools/orvanta"
expect_run "program gone" 7 7
echo 'int e;' >>"$tree/cms/net/a.cpp"
BUILD_FAILS=1 expect_run "failing build" 8 1
BUILD_FAILS=1 expect_run "failing build tried again" 9 1
expect_run "build repaired" 10 7

echo 'int f;' >>"$tree/cms/net/a.cpp"
export BUILD_SECONDS=1
pids=()
for run in 1 2 3; do
  "$tree/run" say >"$work/out.$run" 2>/dev/null &
  pids+=($!)
done
for pid in "${pids[@]}"; do
  status=0
  wait "$pid" || status=$?
  [[ $status == 7 ]] || fail "one of three at the same time: status $status"
done
unset BUILD_SECONDS
[[ $(wc -l <"$BUILDS") == 11 ]] || fail "three at the same time built more than once"

mv "$tree" "$work/moved"
tree=$work/moved
expect_run "tree moved" 12 7
expect_run "nothing changed after the move" 12 7

# The viewer and the fleet are built when they are asked for, and only then.
for asked in fleet view; do
  [[ $(<"$BUILDS.last") != *orvanta-$asked* ]] || fail "$asked was built without being asked for"
  "$tree/run" "$asked" >"$work/out" 2>&1 || [[ $? == 7 ]] || fail "run $asked"
  [[ $(<"$BUILDS.last") == *orvanta-$asked* ]] || fail "run $asked built: $(<"$BUILDS.last")"
done
[[ $(wc -l <"$BUILDS") == 14 ]] || fail "the viewer and the fleet: more than a build each"
echo "all as expected"
