#!/usr/bin/env bash
# Every relative link of the documents leads to a file or a folder, and every anchor to a heading. Each page of docs is
# reached from docs/README.md.
#   check_links.sh SOURCE
set -euo pipefail
cd "$1"

documents() { find . -name '*.md' -not -path './build*' -not -path './.*' -not -path './demo-out/*' | sed 's|^\./||' | sort; }

# DOCUMENT: its links, one a line, without those of the network. Blocks of code have none.
links() {
  awk '/^ *```/ { code = !code; next } !code { gsub(/`[^`]*`/, ""); print }' "$1" |
    grep -oE '\]\([^) ]+\)|^\[[^]]+\]: +[^ ]+|<img [^>]*src="[^"]+"' |
    sed -E 's/^\]\((.*)\)$/\1/; s/^\[[^]]+\]: +//; s/.*src="([^"]+)"/\1/' |
    grep -vE '^(https?|mailto):' || true
}

# DOCUMENT: the anchors of its headings, as the sites that show Markdown make them: small letters, punctuation left out,
# blanks as hyphens; a second heading of the same text gets -1.
anchors() {
  awk '/^ *```/ { code = !code; next }
       !code && /^#+ / {
         sub(/^#+ +/, ""); sub(/ +$/, ""); gsub(/\]\([^)]*\)/, "")
         text = tolower($0); gsub(/[^a-z0-9 _-]/, "", text); gsub(/ /, "-", text)
         print (text in seen ? text "-" seen[text] : text); seen[text]++
       }' "$1"
}

broken() {  # DOCUMENT: what is wrong with its links
  local link path anchor target
  while IFS= read -r link; do
    [ -n "$link" ] || continue
    path=${link%%#*} anchor=
    [[ $link == *#* ]] && anchor=${link#*#}
    target=$1
    [ -z "$path" ] || target=$(dirname "$1")/$path
    if [ ! -e "$target" ]; then
      echo "$1: $link leads nowhere"
    elif [ -n "$anchor" ] && ! anchors "$target" | grep -qxF -e "$anchor"; then
      echo "$1: $link: $target has no such heading"
    fi
  done < <(links "$1")
}

# The check itself: two good links and three bad ones.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '# A `heading`, here\n[a](#a-heading-here) [b](page.md)\n[c](#nowhere) [d](no.md) ![e](no.png)\n' >"$work/page.md"
[ "$(broken "$work/page.md" | wc -l)" -eq 3 ] || { echo "FAILED: the check finds no broken link" >&2; exit 1; }

found=$(for document in $(documents); do broken "$document"; done)
for page in docs/*.md; do
  [ "$page" = docs/README.md ] || links docs/README.md | grep -qE "^$(basename "$page")(#|$)" ||
    found+=$'\n'"docs/README.md has no link to $page"
done
if [ -n "$found" ]; then
  echo "$found" >&2
  exit 1
fi
echo "$(documents | wc -l) documents, $(for document in $(documents); do links "$document"; done | wc -l) links"
