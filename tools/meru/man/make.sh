#!/usr/bin/env bash
# Makes a manual page of what the command, or a subcommand, says of itself, and of the texts beside this script.
#   make.sh HELP2MAN MERU PAGE.1.gz    PAGE is meru or meru-SUBCOMMAND
set -euo pipefail
help2man=$1 meru=$2 output=$3
page=$(basename "$output" .1.gz)
subcommand=${page#meru}
subcommand=${subcommand#-}
texts=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The page gets the name of the program, so each subcommand is one here. Names of an option are words of their own.
cat >"$work/$page" <<END
#!/bin/sh
[ "\$1" != --version ] || exec '$meru' --version
'$meru' $subcommand "\$@" | sed 's/^  \(-[A-Za-z]\),--/  \1, --/'
END
chmod +x "$work/$page"

{
  cat "$texts/$page.h2m"
  printf '\n[SEE ALSO]\n'
  for other in meru meru-screen meru-record meru-remux meru-repair meru-recover meru-index; do
    [ "$other" = "$page" ] || printf '.BR %s (1),\n' "$other"
  done
  echo '.BR ffmpeg (1)'
} >"$work/texts"
"$help2man" --no-info --manual "User Commands" --source MeruLib --include "$work/texts" --output "$work/$page.1" "$work/$page"
gzip -9n <"$work/$page.1" >"$output"
