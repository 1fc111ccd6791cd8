#!/usr/bin/env bash
# Starts and stops many sessions against a dead network; shows how long the slowest start and stop took.
#   tests/network/stop_storm.sh [ROUNDS] [BUILD_FOLDER]   200 rounds at each of five moments, build/dev
set -euo pipefail
cd "$(dirname "$0")/../.."
rounds=${1:-200} build=${2:-build/dev}
[[ $build = /* ]] || build=$PWD/$build
program=$build/tests/network_stop_storm_test
[ -x "$program" ] || { echo "$program is missing: build first" >&2; exit 1; }
said=$(mktemp)
trap 'rm -f "$said"' EXIT

failed=0
MERU_STORM_ROUNDS=$rounds "$program" >"$said" 2>&1 || failed=1
grep '^storm ' "$said" || true
awk -v rounds="$rounds" '
  /^storm / {
    kind = $2 == "Packets"
    sessions[kind] += $4; late[kind] += $8
    if ($6 > start[kind]) start[kind] = $6
    if ($10 > stop[kind]) stop[kind] = $10
  }
  END {
    for (kind = 0; kind < 2; kind++) {
      printf "%d rounds, %s: %d sessions, slowest start %.1f ms (%d above the limit), slowest stop %.1f ms\n", rounds,
        kind ? "packets" : "images", sessions[kind], start[kind] / 1e3, late[kind], stop[kind] / 1e3
    }
  }' "$said"
[ "$failed" -eq 0 ] || { grep -vE '^storm |^\[ RUN|^\[       OK' "$said" >&2; exit 1; }
