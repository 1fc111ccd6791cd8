#!/usr/bin/env bash
# Kills many recordings and repairs what they leave behind; shows how much of them was lost.
#   tests/fault/kill_storm.sh [KILLS] [AT_ONCE] [BUILD_FOLDER]        1000 kills, 4 at once, build/dev
#   tests/fault/kill_storm.sh --table [KILLS] [AT_ONCE] [BUILD_FOLDER]  5 kills of each setting of the encoder, 4 at once
set -euo pipefail
cd "$(dirname "$0")/../.."
table=0
if [ "${1:-}" = --table ]; then
  table=1
  shift
fi
kills=${1:-$((table ? 5 : 1000))} at_once=${2:-4} build=${3:-build/dev}
if ((table)); then name=unit_killed_encoder_test; else name=fault_killed_recording_test; fi
program=$PWD/$build/tests/$name
[ -x "$program" ] || { echo "$program is missing: build first" >&2; exit 1; }
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

# PRESET:TUNE:FPS:LIMIT_MS, the limit being that of MovieMuxer::limit_encoder_delay.
settings() {
  local preset fps
  for preset in ultrafast superfast veryfast faster fast medium; do
    for fps in 5 10 30 60; do echo "$preset:none:$fps:0"; done
  done
  for fps in 5 10 30 60; do echo "veryfast:zerolatency:$fps:0"; done
  for preset in veryfast medium; do
    for fps in 5 7 10 15 30 60; do echo "$preset:none:$fps:300"; done
  done
}

if ((table)); then
  failed=0
  settings | MERU_KILLS=$kills xargs -P "$at_once" -I{} sh -c \
    'MERU_KILL_SETTINGS={} "$1" --gtest_filter="Settings/*" >"$2/{}" 2>&1' sh "$program" "$logs" || failed=1
  echo "| preset | tune | fps | bound | frames held | median loss | worst loss |"
  echo "|---|---|---|---|---|---|---|"
  settings | while IFS=: read -r preset tune fps limit; do
    log=$logs/$preset:$tune:$fps:$limit
    awk '/^kill / { print $NF, $4 }' "$log" | sort -g |
      awk -v row="| $preset | $tune | $fps | $([ "$limit" = 0 ] && echo no || echo yes) |" '
        { loss[NR] = $1; held = $2 }
        END { printf "%s %d | %.2f s | %.2f s |\n", row, held, loss[int((NR + 1) / 2)], loss[NR] }'
    grep -E 'Failure|Which is|restored; audio' "$log" >&2 || true
  done
  exit $failed
fi

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
