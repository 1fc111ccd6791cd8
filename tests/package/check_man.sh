#!/usr/bin/env bash
# The manual pages: each is well formed, and says all that the command's help says. Exit status 77 without man.
#   check_man.sh MERU FOLDER
set -euo pipefail
meru=$1 folder=$2
fail() { echo "FAILED: $*" >&2; exit 1; }
command -v man >/dev/null || { echo "SKIPPED: man is missing" >&2; exit 77; }
export LC_ALL=C.UTF-8 MANWIDTH=500  # so wide that no option is broken

for subcommand in '' screen record remux repair recover index; do
  page=meru${subcommand:+-$subcommand}
  text=$(man --warnings -E UTF-8 -l "$folder/$page.1.gz" 2>&1) || fail "$page: $text"
  if grep -E 'warning|<standard input>' <<<"$text"; then fail "$page is not well formed"; fi
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "SEE ALSO"; do
    grep -qx "$section" <<<"$text" || fail "$page has no $section"
  done
  for option in $("$meru" ${subcommand:+"$subcommand"} --help | grep -oE '^  -[^ ]+' | tr ',' '\n'); do
    grep -qE "^ +(-[a-z], )?${option}( |,|$)" <<<"$text" || fail "$page lacks $option"
  done
done
echo "the pages are readable"
