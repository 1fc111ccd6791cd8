#!/usr/bin/env bash
# Uses what is installed: builds and runs an example in C with pkg-config and one in C++ with CMake, and records and
# repairs with the command, when there is one.
#   use.sh EXAMPLES PREFIX VERSION C_COMPILER
set -euo pipefail
examples=$1 prefix=$2 version=$3 compiler=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
example() {  # PROGRAM EXPECTED: one second of it; hosts tell much
  "$examples/check.sh" "$1" "$1.mp4" 1 "$2" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
  echo "$(basename "$1"): $(tail -n 1 "$work/log")"
}

libdir=$(dirname "$(find "$prefix/lib" -name 'libMeruLib.so')")
[ -d "$libdir" ] || fail "no library"
readelf -d "$libdir/libMeruLib.so" | grep -qF "[libMeruLib.so.${version%%.*}]" || fail "no soname of the major version"

[ "$prefix" = /usr ] || export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion merulib)" = "$version" ] || fail "pkg-config names another version"
# Unquoted: flags are words.
"$compiler" -std=c11 -pedantic -Wall -Wextra -Werror $(pkg-config --cflags merulib) "$examples/record_c.c" \
  -o "$work/record_c" $(pkg-config --libs merulib)
(
  [ "$prefix" = /usr ] || export LD_LIBRARY_PATH=$libdir
  example "$work/record_c" "h264,320,240,25 aac,44"
)

cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.18)
project(host CXX)
find_package(MeruLib ${version%.*} REQUIRED)
find_package(Threads REQUIRED)
add_executable(host $examples/record.cpp)
target_compile_features(host PRIVATE cxx_std_17)
target_link_libraries(host PRIVATE MeruLib::MeruLib Threads::Threads)
END
cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" || fail "$(cat "$work/cmake.log")"
cmake --build "$work/build" >"$work/cmake.log" || fail "$(cat "$work/cmake.log")"
example "$work/build/host" "h264,640,360,30 aac,47"

meru=$prefix/bin/meru
[ -e "$meru" ] || exit 0
"$meru" --version | grep -F "$version" || fail "the installed command does not run"
cd "$work"
"$meru" record --test --size 320x180 --seconds 4 -o cut.mp4 --index cut.index >record.log 2>&1 || fail "$(cat record.log)"
truncate -s $(($(stat -c %s cut.mp4) / 2)) cut.mp4
if ffprobe -v error cut.mp4 2>/dev/null; then fail "the cut movie plays"; fi
"$meru" repair cut.mp4 cut.index repaired.mp4 >repair.log 2>&1 || fail "$(cat repair.log)"
errors=$(ffmpeg -nostdin -v error -xerror -i repaired.mp4 -f null - 2>&1) || true
[ -z "$errors" ] || fail "the repaired movie does not play: $errors"
frames=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 repaired.mp4)
echo "$frames of 120 images came back from half a movie"
[ "$frames" -gt 20 ] && [ "$frames" -lt 120 ] || fail "that is not half of them"
