#!/usr/bin/env bash
# Runs an example and compares what it recorded, as ffprobe counts it, with what is expected.
#   check.sh PROGRAM FILE SECONDS EXPECTED
set -euo pipefail
program=$1 file=$2 seconds=$3 expected=$4
rm -f "$file"
"$program" "$file" "$seconds"
found=$(ffprobe -v error -count_frames -of csv=p=0 -show_entries stream=codec_name,width,height,nb_read_frames "$file" |
  paste -sd ' ')
echo "expected: $expected"
echo "found:    $found"
[ "$found" = "$expected" ]
