#!/usr/bin/env bash
# The table of docs/error-codes.md has every code of the headers with its number, and its texts stand in the sources.
#   check_codes.sh SOURCE
set -euo pipefail
cd "$1"
document=docs/error-codes.md
fail() { echo "FAILED: $*" >&2; exit 1; }

codes=$(sed -nE 's/^ *(MERU_(STATUS|REPAIR)_[A-Z_]+) = (-?[0-9]+).*/\1 \3/p' include/meru/*.h)
[ "$(wc -l <<<"$codes")" -ge 10 ] || fail "too few codes were found in the headers: $codes"
while read -r name number; do
  grep -qF "| \`$name\`, $number |" $document || fail "$document lacks $name, $number"
done <<<"$codes"

# The third column, as far as it is code.
texts=$(awk -F'|' '/^## / { table = ($0 == "## All of them") } table && NF == 6 { print $4 }' $document | grep -oE '`[^`]+`' | tr -d '`')
[ "$(wc -l <<<"$texts")" -ge 10 ] || fail "too few texts were found: $texts"
while IFS= read -r text; do
  grep -rqF "\"$text" src plugins || fail "no source says: $text"
done <<<"$texts"
echo "$(wc -l <<<"$codes") codes, $(wc -l <<<"$texts") texts"
