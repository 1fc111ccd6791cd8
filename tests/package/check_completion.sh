#!/usr/bin/env bash
# Compares what the completion for bash knows with what the command says of itself, and completes some words.
#   check_completion.sh SOURCE MERU
set -euo pipefail
meru=$2
source "$1/tools/meru/completion/meru.bash"
fail() { echo "FAILED: $*" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# What a help says of each option, on one line: "-o,--output OUT REQUIRED  The movie ...".
help_lines() {  # SUBCOMMAND
  "$meru" ${1:+"$1"} --help | awk '
    /^  -/ { if (line != "") print line; line = $0; next }
    /^   / && line != "" { sub(/^ +/, "  "); line = line $0; next }
    line != "" { print line; line = "" }
    END { if (line != "") print line }' | sed 's/^ *//'
}

expected_values() {  # HELP_LINE: in the words of _meru_values
  local head=${1%%  *} names
  names=$(grep -oE '[a-z0-9]+(, [a-z0-9]+)+' <<<"${1#*  }" | awk '{ if (NF > n) { n = NF; line = $0 } } END { print line }')
  case $head in
    *" NAME"*) echo "names ${names//,/}" ;;
    *" FILE"* | *" OUT"* | *" URL"*) echo files ;;
    *" "*) echo other ;;
  esac
}

checked=0
for subcommand in '' screen record remux repair recover index; do
  known=$(_meru_options "$subcommand" | tr ' ' '\n' | sort)
  said=$(help_lines "$subcommand" | sed 's/[ =].*//' | tr ',' '\n' | sort)
  [ "$known" = "$said" ] || fail "options of meru $subcommand: $(diff <(echo "$known") <(echo "$said"))"
  while IFS= read -r line; do
    option=${line%%[ =]*}
    for name in ${option//,/ }; do
      [ "$(_meru_values "$name" "$subcommand")" = "$(expected_values "$line")" ] ||
        fail "$subcommand $name: completed with '$(_meru_values "$name" "$subcommand")', said to take '$(expected_values "$line")'"
      checked=$((checked + 1))
    done
  done < <(help_lines "$subcommand")
done
[ "$checked" -gt 50 ] || fail "only $checked options were found"
echo "$checked options are as the command says"

compopt() { :; }  # works inside a completion only
completes() {  # EXPECTED WORD...
  local expected=$1
  shift
  COMP_WORDS=(meru "$@")
  COMP_CWORD=$#
  _meru
  local found
  found=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd '|')
  [ "$found" = "$expected" ] || fail "meru $* completes to '$found', not '$expected'"
}
touch 'cut one.mp4' cut.index
completes 'index|record|recover|remux|repair|screen' ''
completes 'record|recover|remux|repair' re
completes '--version' --v
completes '--preset|--profile|--progress' record --pr
completes '--verbose' repair --v
completes 'veryfast|veryslow' record --test --preset very
completes 'veryfast|veryslow' record --preset = very
completes 'abr|cbr|cqp|vbr' record --rate-control =
completes '' record --size 1
completes '' record --test ''
completes '' screen --audio c
completes 'cut one.mp4|cut.index' remux --audio c
completes 'cut one.mp4|cut.index' record --test -o cu
completes 'cut one.mp4|cut.index' repair cu
completes 'cut.index' remux --log cut.
mkdir cuts
completes 'cuts' recover cu
[ "$(complete -p meru)" = 'complete -F _meru meru' ] || fail "the completion is not bound to the command"
echo "words are completed"
