#!/usr/bin/env bash
# The manual that doxygen makes of the public headers: no warning, and a place for every exported function.
#   check_api_docs.sh DOXYGEN DOXYFILE INCLUDE_FOLDER
# Exit status 77, skipped, without doxygen.
set -euo pipefail
doxygen=${1:-} doxyfile=${2:-} include=${3:-}
fail() { echo "FAILED: $*" >&2; exit 1; }
if [ ! -x "$doxygen" ]; then
  echo "skipped: doxygen is not installed; tools/deps.sh test installs it"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

make_docs() {  # FOLDER [FURTHER_INPUT]
  mkdir -p "$1"
  { cat "$doxyfile"; printf 'OUTPUT_DIRECTORY = "%s"\nINPUT += %s\n' "$1" "${2:-}"; } | "$doxygen" - >"$1/output" 2>&1
}

make_docs "$work/docs" || fail "$(cat "$work/docs/output")"
[ ! -s "$work/docs/output" ] || fail "it said: $(cat "$work/docs/output")"

functions=$(sed -n 's/^MERU_API .*\b\(MERU2\?_[A-Za-z_]*\)(.*/\1/p' "$include"/*.h | sort -u)
[ "$(wc -w <<<"$functions")" -ge 20 ] || fail "too few functions were found in the headers: $functions"
for function in $functions; do
  grep -q "class=\"memname\">.*\b$function <" "$work"/docs/html/*_8h.html || fail "$function has no place in the manual"
done

# It has to notice what is missing, or the lines above say nothing.
printf '/// @file\nvoid nobody_said_what_this_does(int why);\n' >"$work/undocumented.h"
if make_docs "$work/worse" "\"$work/undocumented.h\""; then fail "a function without a word was let pass"; fi
grep -q nobody_said "$work/worse/output" || fail "it failed for another reason: $(cat "$work/worse/output")"
echo "$(wc -w <<<"$functions") functions are documented"
