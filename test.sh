#!/usr/bin/env bash
# Builds MeruLib without warnings, checks the sources, runs the tests of threads under the sanitizers, and every test.
# Fails when any of it fails.
set -euo pipefail
cd "$(dirname "$0")"

step() { printf '\n== %s\n' "$*"; }

step "packages"
tools/deps.sh test

step "build"
cmake --preset dev
cmake --build --preset dev

step "format and static analysis"
tests/lint.sh build/dev

step "sanitizers"
tests/sanitize.sh --quick

step "tests"
# Three at once on two cores: many tests wait for servers.
ctest --preset dev -j3 --output-on-failure --no-tests=error
