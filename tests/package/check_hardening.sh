#!/usr/bin/env bash
# Looks whether the binaries were built to check themselves.
#   check_hardening.sh BINARY...
set -euo pipefail
fail() { echo "FAILED: $*" >&2; exit 1; }
for binary; do
  readelf -lW "$binary" | grep -q GNU_RELRO || fail "$binary: no read-only relocations"
  readelf -dW "$binary" | grep -q BIND_NOW || fail "$binary: the table of functions stays writable"
  ! readelf -lW "$binary" | grep -E 'GNU_STACK.*RWE' || fail "$binary: the stack can be executed"
  # A stack protector is reached from any function with an array, a checked copy from one whose buffer has a known size.
  symbols=$(readelf --dyn-syms -W "$binary")
  grep -q __stack_chk_fail <<<"$symbols" || fail "$binary: no stack protector"
done
grep -q '_chk@' <<<"$(readelf --dyn-syms -W "$1" | grep -v __stack_chk)" || fail "$1: no checked copies"
echo "hardened: $*"
