#!/bin/sh
# `make build` configures whenever the generated build is missing, so a
# configure that failed (packages not installed yet) does not block every
# later make. Usage: makefile_configure.sh SOURCE_DIR
set -u
src=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Only what this test says, whatever make runs the test suite.
unset MAKEFLAGS MFLAGS MAKELEVEL CMAKE_FLAGS BUILD
status=0
fail() { echo "FAIL: $*"; status=1; }
plan() { make --no-print-directory -n -C "$src" build BUILD="$1"; }

# A configure that fails removes the cache it wrote (a missing toolchain
# fails at once, after the cache is written).
make --no-print-directory -C "$src" build BUILD="$tmp/failed" \
  CMAKE_FLAGS=-DCMAKE_TOOLCHAIN_FILE=/nonexistent/toolchain.cmake >"$tmp/log" 2>&1 &&
  fail "the failing configure succeeded"
[ -e "$tmp/failed/CMakeCache.txt" ] && fail "a failed configure left its cache"

# A tree a failed configure left before that cleanup: the cache, no build files.
cmake -S "$src" -B "$tmp/half" -DCMAKE_TOOLCHAIN_FILE=/nonexistent/toolchain.cmake >/dev/null 2>&1
[ -e "$tmp/half/CMakeCache.txt" ] || fail "setup: no half-configured tree"
out=$(plan "$tmp/half") || fail "make -n build failed on a half-configured tree"
echo "$out" | grep -q "^cmake -S \. -B $tmp/half" || fail "no configure for a half-configured tree:
$out"
echo "$out" | grep -q "^cmake --build $tmp/half" || fail "no build after the configure:
$out"

# A configured tree builds without configuring again (cmake reruns itself
# from its own Makefile when the lists change).
touch "$tmp/half/Makefile"
out=$(plan "$tmp/half") || fail "make -n build failed on a configured tree"
echo "$out" | grep -q "^cmake -S" && fail "configured again:
$out"
echo "$out" | grep -q "^cmake --build $tmp/half" || fail "no build:
$out"

# No build folder at all.
out=$(plan "$tmp/fresh") || fail "make -n build failed on a fresh folder"
echo "$out" | grep -q "^cmake -S \. -B $tmp/fresh" || fail "no configure for a fresh folder:
$out"

[ $status = 0 ] || cat "$tmp/log"
exit $status
