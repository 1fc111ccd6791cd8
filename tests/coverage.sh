#!/usr/bin/env bash
# Builds with gcov, runs the default suite, and prints the coverage of lines and branches of each file of the library.
#   tests/coverage.sh [MINIMUM]   fails below MINIMUM per cent of all lines, 95 by default
# build/coverage/report.html has the lines themselves.
set -euo pipefail
cd "$(dirname "$0")/.."
minimum=${1:-95}
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
# Not the packages: they may not hold the paths that gcov needs.
ctest --preset coverage -j3 -LE package --no-tests=error >build/coverage/tests.log || { tail -n 40 build/coverage/tests.log; exit 1; }
# Branches without those of the exceptions that any call might throw.
report=(gcovr --root . --object-directory build/coverage --filter 'src/' --filter 'plugins/' --exclude-throw-branches)
"${report[@]}" --html-details build/coverage/report.html --txt build/coverage/lines.txt --fail-under-line "$minimum" || failed=1
"${report[@]}" --branches --txt build/coverage/branches.txt
cat build/coverage/lines.txt build/coverage/branches.txt
exit "${failed:-0}"
