#!/usr/bin/env bash
# Builds and runs the tests under the address, leak and undefined behaviour sanitizers, then under the thread sanitizer.
#   tests/sanitize.sh          the whole default suite under each
#   tests/sanitize.sh --quick  what ./test.sh runs: the tests of threads, starts and stops, writers and repair
# Any finding fails the test that met it. What is not ours and known is listed in tests/sanitizer, with the reasons.
set -euo pipefail
cd "$(dirname "$0")/.."
targets=() tests=()
case "${1:-}" in
  --quick) targets=(--target sanitize_quick) tests=(-L '^sanitize$') ;;
  '') ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

failed=()
for preset in asan tsan; do
  printf '\n== %s\n' "$preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" "${targets[@]}"
  ctest --preset "$preset" -j3 --no-tests=error "${tests[@]}" || failed+=("$preset")
done
[ ${#failed[@]} -eq 0 ] || { echo "failed: ${failed[*]}" >&2; exit 1; }
