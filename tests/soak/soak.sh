#!/usr/bin/env bash
# The long runs, one after the other; shows their figures.
#   tests/soak/soak.sh [PART...]   storm load day large; all of them by default
# storm: 2000 short recordings, eight at once (two minutes on two idle processors). load: 600 images to each recording
# (two minutes). day: 24 hours of recording, twice (seven minutes). large: movies beyond 4 GiB, repaired (two minutes,
# 10 GB of disk).
# BUILD: the build folder, build/dev. TMPDIR: where the movies are made. MERU_STORM_SEED, MERU_STORM_RECORDINGS,
# MERU_LOAD_IMAGES and MERU_SOAK_HOURS change what is done.
set -euo pipefail
cd "$(dirname "$0")/../.."
programs=${BUILD:-build/dev}/tests
export MERU_STORM_RECORDINGS=${MERU_STORM_RECORDINGS:-2000} MERU_LOAD_IMAGES=${MERU_LOAD_IMAGES:-600}
declare -A program=([storm]=soak_storm_test [load]=soak_load_test [day]=soak_day_soak [large]=soak_large_movie_soak)
[ $# -gt 0 ] || set -- storm load day large
said=$(mktemp)
trap 'rm -f "$said"' EXIT

failed=()
for part in "$@"; do
  run=$programs/${program[$part]:?"there is no part $part"}
  [ -x "$run" ] || { echo "$run is missing: build first" >&2; exit 1; }
  begun=$SECONDS
  if "$run" >"$said" 2>&1; then result=passed; else result=FAILED; failed+=("$part"); fi
  grep -aE "^$part " "$said" || true
  [ "$result" = passed ] || grep -aE -A4 '_(test|soak)\.cpp:[0-9]+|terminate|Sanitizer' "$said" >&2 ||
    tail -n 20 "$said" >&2
  echo "$part: $result in $((SECONDS - begun)) s"
done
[ ${#failed[@]} -eq 0 ]
