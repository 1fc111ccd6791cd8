#!/usr/bin/env bash
# Installs into a folder, moves it, looks at what is there, and uses it.
#   check.sh SOURCE BUILD C_COMPILER VERSION
set -euo pipefail
source=$1 build=$2 compiler=$3 version=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
mv "$work/first" "$work/prefix"
prefix=$work/prefix

fail() { echo "FAILED: $*" >&2; exit 1; }
# Not in the binaries: before they are stripped, they tell a debugger where the sources are.
if grep -rIlF -e "$source" -e "$build" -e "$work/first" "$prefix"; then
  fail "a folder of the build is named in these files"
fi
if [ -e "$build/tools/meru/meru" ]; then
  [ -e "$prefix/share/bash-completion/completions/meru" ] || fail "no completion"
  for page in "$build"/tools/meru/man/*.gz; do
    [ ! -e "$page" ] || cmp "$page" "$prefix/share/man/man1/$(basename "$page")" || fail "a manual page is missing"
  done
fi
"$(dirname "$0")/use.sh" "$source/examples" "$prefix" "$version" "$compiler"
echo "installed, moved and used from C and C++"
