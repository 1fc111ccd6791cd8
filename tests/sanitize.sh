#!/usr/bin/env bash
# Builds and runs the tests under the address, leak and undefined behaviour sanitizers, then under the thread sanitizer.
#   tests/sanitize.sh          the whole default suite under each
#   tests/sanitize.sh --quick  what ./test.sh runs: the tests of threads, starts and stops, writers and repair
# Any finding fails the test that met it. What is not ours and known is listed in tests/sanitizer, with the reasons.
set -euo pipefail
cd "$(dirname "$0")/.."
quick=OFF rest=ON
case "${1:-}" in
  --quick) quick=ON rest=OFF ;;
  '') ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

failed=()
for preset in asan tsan; do
  printf '\n== %s\n' "$preset"
  cmake --preset "$preset" -DMERU_QUICK_TESTS=$quick -DMERU_BUILD_TOOLS=$rest -DMERU_BUILD_EXAMPLES=$rest >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j3 --no-tests=error || failed+=("$preset")
done
[ ${#failed[@]} -eq 0 ] || { echo "failed: ${failed[*]}" >&2; exit 1; }
