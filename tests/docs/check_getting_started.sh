#!/usr/bin/env bash
# Does what docs/getting-started.md says, with an installation in a folder in place of one in the system: the program and
# the commands as they stand there. A block of text must be what the commands before it print.
#   check_getting_started.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
document=$source/docs/getting-started.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" || fail "$(cat "$work/install.log")"
libdir=$(dirname "$(find "$work/prefix" -name 'libMeruLib.so')")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir PATH=$work/prefix/bin:$PATH

# One file for each block: 1.bash, 2.bash, 3.cpp ...
awk -v base="$work/" '
  /^```/ && out == "" { out = base (++n) "." substr($0, 4); printf "" >out; next }
  /^```/ { close(out); out = ""; next }
  out != "" { print >out }
' "$document"
mkdir "$work/home"
cd "$work/home"

done_blocks=0
install=$(grep -lx 'cmake --install build/release' "$work"/*.bash) || fail "nothing is installed"
expected=$'tools/deps.sh build\ncmake --preset release\ncmake --build --preset release\ncmake --install build/release\nldconfig'
[ "$(cat "$install")" = "$expected" ] || fail "this test does not know how to install by $(cat "$install")"
[ -x "$source/tools/deps.sh" ] || fail "there is no tools/deps.sh"
grep -q '"name": "release"' "$source/CMakePresets.json" || fail "there is no preset release"
for ((n = 1; ; n++)); do
  block=$(echo "$work/$n".*)
  [ -e "$block" ] || break
  case $block in
    "$install") continue ;;  # done above, in a folder
    *.cpp) cp "$block" first.cpp ;;
    *.bash)
      bash -euo pipefail "$block" >"$work/printed" 2>"$work/errors" || fail "$(cat "$block" "$work/printed" "$work/errors")"
      ;;
    *.text) diff "$block" "$work/printed" || fail "block $n of $document is not what is printed" ;;
    *) continue ;;
  esac
  done_blocks=$((done_blocks + 1))
done
[ "$done_blocks" -ge 7 ] || fail "only $done_blocks blocks were done"

[ -s test.mp4 ] || fail "the command recorded nothing"
# The last block counts what was repaired: two fifths of the movie.
frames=$(sed -n 's/^h264,\([0-9]*\)$/\1/p' "$work/printed")
if [ "${frames:-0}" -lt 20 ] || [ "$frames" -ge 125 ]; then fail "$(cat "$work/printed")"; fi
if ffprobe -v error cut.mp4 2>/dev/null; then fail "the cut movie plays"; fi
echo "$done_blocks blocks done, $frames images of 125 repaired"
