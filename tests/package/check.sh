#!/usr/bin/env bash
# Installs into a folder, moves it, and builds and runs the examples against it: one with pkg-config, one with CMake.
#   check.sh SOURCE BUILD C_COMPILER VERSION
set -euo pipefail
source=$1 build=$2 compiler=$3 version=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
mv "$work/first" "$work/prefix"
prefix=$work/prefix

fail() { echo "FAILED: $*" >&2; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libMeruLib.so')")
[ -d "$libdir" ] || fail "no library"
readelf -d "$libdir/libMeruLib.so" | grep -qF "[libMeruLib.so.${version%%.*}]" || fail "no soname of the major version"
if grep -rlF -e "$source" -e "$work/first" "$prefix/include" "$libdir/cmake" "$libdir/pkgconfig"; then
  fail "a folder of the build is named in these files"
fi

export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
[ "$(pkg-config --modversion merulib)" = "$version" ] || fail "pkg-config names another version"
# Unquoted: flags are words.
"$compiler" -std=c11 -pedantic -Wall -Wextra -Werror $(pkg-config --cflags merulib) "$source/examples/record_c.c" \
  -o "$work/record_c" $(pkg-config --libs merulib)
"$source/examples/check.sh" "$work/record_c" "$work/c.mp4" 1 "h264,320,240,25 aac,43"

cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.18)
project(host CXX)
find_package(MeruLib ${version%.*} REQUIRED)
find_package(Threads REQUIRED)
add_executable(host $source/examples/record.cpp)
target_compile_features(host PRIVATE cxx_std_17)
target_link_libraries(host PRIVATE MeruLib::MeruLib Threads::Threads)
END
cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" || fail "$(cat "$work/cmake.log")"
cmake --build "$work/build" >"$work/cmake.log" || fail "$(cat "$work/cmake.log")"
unset LD_LIBRARY_PATH
"$source/examples/check.sh" "$work/build/host" "$work/cpp.mp4" 1 "h264,640,360,30 aac,46"

if [ -e "$build/tools/meru/meru" ]; then
  "$prefix/bin/meru" --version | grep -F "$version" || fail "the installed command does not run"
fi
echo "installed, moved and used from C and C++"
