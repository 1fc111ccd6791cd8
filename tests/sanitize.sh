#!/usr/bin/env bash
# Builds and runs the tests under the address, leak and undefined behaviour sanitizers, then under the thread sanitizer.
#   tests/sanitize.sh          the whole default suite under each
#   tests/sanitize.sh --quick  what ./test.sh runs: the tests of threads, starts and stops, writers and repair
# Any finding fails the test that met it. What is not ours and known is listed in tests/sanitizer, with the reasons.
set -euo pipefail
cd "$(dirname "$0")/.."
kind='' options=()
case "${1:-}" in
  # Little optimised, so that both are built soon.
  --quick) kind=-quick options=(-DMERU_QUICK_TESTS=ON -DMERU_BUILD_TOOLS=OFF -DMERU_BUILD_EXAMPLES=OFF
    '-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1') ;;
  '') ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

failed=()
for preset in asan tsan; do
  printf '\n== %s\n' "$preset$kind"
  build=build/$preset$kind
  cmake --preset "$preset" -B "$build" "${options[@]}" >/dev/null
  cmake --build "$build"
  ctest --test-dir "$build" -j3 --output-on-failure --no-tests=error || failed+=("$preset")
done
[ ${#failed[@]} -eq 0 ] || { echo "failed: ${failed[*]}" >&2; exit 1; }
