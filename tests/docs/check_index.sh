#!/usr/bin/env bash
# The example of docs/index-format.md: `meru index` must print the table that stands there.
#   check_index.sh SOURCE MERU
set -euo pipefail
document=$1/docs/index-format.md meru=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

block() { awk -v open="\`\`\`$1" '$0 == open { on = 1; next } /^```/ { on = 0 } on' "$document"; }

block index >"$work/index"
block table >"$work/table"
[ -s "$work/index" ] && [ -s "$work/table" ] || { echo "FAILED: $document has no example" >&2; exit 1; }
"$meru" index "$work/index" >"$work/printed"
diff "$work/table" "$work/printed"
echo "the example reads as it says"
