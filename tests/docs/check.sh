#!/usr/bin/env bash
# Compiles every C and C++ block of the documents, and runs the host that the README shows.
#   check.sh SOURCE CXX CC [LIBRARY_FOLDER]    without the folder nothing is linked or run
#
# A block that includes a header stands alone. Any other is a piece of a host's function, which has the things that the
# prelude below declares.
set -euo pipefail
source=$1 cxx=$2 cc=$3 library=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

cat >"$work/prelude" <<'END'
#include <stdio.h>
#include <string.h>
#include <meru/meru.h>
void piece(void* session, MovieInfo info, unsigned char* image, short* samples, int nbytes, long long pts_usec);
void piece(void* session, MovieInfo info, unsigned char* image, short* samples, int nbytes, long long pts_usec) {
  (void)session; (void)info; (void)image; (void)samples; (void)nbytes; (void)pts_usec;
END

extract() {  # DOCUMENT: writes its blocks to $work/NAME-LINE.cpp and .c
  awk -v base="$work/$(basename "$1" .md)" -v prelude="$work/prelude" '
    function finish() {
      if (text ~ /#include/) printf "%s", text > out
      else {
        while ((getline line < prelude) > 0) print line > out
        close(prelude)
        printf "%s}\n", text > out
      }
      close(out)
      out = ""
    }
    /^```/ {
      if (out != "") { finish(); next }
      language = substr($0, 4)
      if (language == "cpp" || language == "c") { out = base "-" NR "." language; text = "" }
      next
    }
    out != "" { text = text $0 "\n" }
    END { if (out != "") { print "a block does not end"; exit 1 } }
  ' "$1"
}

for document in "$source"/README.md "$source"/CONTRIBUTING.md "$source"/docs/*.md; do
  extract "$document" || fail "$document"
done

blocks=0
for block in "$work"/*.cpp "$work"/*.c; do
  [ -e "$block" ] || continue
  case $block in
    *.cpp) compile=("$cxx" -std=c++17) ;;
    *) compile=("$cc" -std=c11) ;;
  esac
  "${compile[@]}" -Wall -Wextra -Werror -fsyntax-only -I"$source/include" "$block" ||
    fail "$(basename "$block") (document and line) does not compile"
  blocks=$((blocks + 1))
done
[ "$blocks" -ge 5 ] || fail "only $blocks blocks were found"
echo "$blocks blocks compile"

[ -n "$library" ] || exit 0
readme_host=$(grep -l 'int main' "$work"/README-*.cpp) || fail "README.md shows no host"
"$cxx" -std=c++17 -I"$source/include" "$readme_host" -o "$work/host" -L"$library" -lMeruLib -Wl,-rpath,"$library"
cd "$work"
./host
frames=$(ffprobe -v error -count_frames -of csv=p=0 -show_entries stream=codec_name,nb_read_frames movie.mp4)
[ "$frames" = "h264,50" ] || fail "the README's host recorded: $frames"
echo "the README's host records"
