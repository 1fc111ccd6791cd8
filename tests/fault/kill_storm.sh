#!/usr/bin/env bash
# Kills many recordings and repairs what they leave behind; shows how much of them was lost.
#   tests/fault/kill_storm.sh [KILLS] [AT_ONCE] [BUILD_FOLDER]   1000 kills, 4 at once, build/dev
set -euo pipefail
cd "$(dirname "$0")/../.."
kills=${1:-1000} at_once=${2:-4} build=${3:-build/dev}
program=$PWD/$build/tests/fault_killed_recording_test
[ -x "$program" ] || { echo "$program is missing: build first" >&2; exit 1; }
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

pids=()
for ((i = 0; i < at_once; i++)); do
  MERU_KILLS=$(((kills + at_once - 1) / at_once)) "$program" >"$logs/$i" 2>&1 &
  pids+=($!)
done
failed=0
for i in "${!pids[@]}"; do
  wait "${pids[$i]}" || { failed=$((failed + 1)); grep -vE '^(progress|kill|pts):?' "$logs/$i" >&2; }
done

cat "$logs"/* | awk '/^kill / { print $NF }' | sort -g | awk -v failed="$failed" '
  { loss[NR] = $1 }
  END {
    if (NR == 0) { print "no kills" > "/dev/stderr"; exit 1 }
    printf "%d kills, %d of the runs with failures, median loss %.3f s, worst %.3f s\n", NR, failed,
      loss[int((NR + 1) / 2)], loss[NR]
  }'
[ "$failed" -eq 0 ]
