#!/usr/bin/env bash
# Checks the format of all sources, and all translation units but the tests' with cppcheck and clang-tidy. With clang-tidy
# come clang's own warnings, those that GCC is asked for; the tests get these alone.
#   tests/lint.sh [BUILD_FOLDER]   a configured build folder, build/dev by default
# A file that passed is not analysed again until it, a header, the checks or its compile command change; what has passed
# is noted in ${XDG_CACHE_HOME:-$HOME/.cache}/merulib/lint.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/dev}
commands=$build/compile_commands.json
[ -f "$commands" ] || { echo "$commands is missing: configure first" >&2; exit 1; }

folders=()
for folder in include src plugins tools examples bench tests; do
  [ ! -d "$folder" ] || folders+=("$folder")
done
failed=0
if find "${folders[@]}" \( -name '*.h' -o -name '*.c' -o -name '*.cpp' \) -print0 | sort -z |
  xargs -0 clang-format --dry-run -Werror; then
  echo "format: clean"
else
  echo "format: run clang-format -i on the files above" >&2
  failed=1
fi

# Not its style: clang-tidy has that. It needs no header of the system.
if cppcheck --quiet --enable=warning,performance,portability --inline-suppr --suppress=missingIncludeSystem --std=c++17 \
  -j2 -I include -I src -I plugins --error-exitcode=1 --template='{file}:{line}: {id}: {message}' \
  src plugins tools examples; then
  echo "cppcheck: clean"
else
  echo "cppcheck: findings" >&2
  failed=1
fi

passed=${XDG_CACHE_HOME:-${HOME:-$build}/.cache}/merulib/lint
mkdir -p "$passed"
headers() { find "$@" -name '*.h' -print0 | sort -z | xargs -0 sha256sum; }
common=$({
  clang-tidy --version
  cat .clang-tidy
  headers include src plugins tools examples
} | sha256sum)
of_tests=$(headers tests | sha256sum)

analysed=() keys=()
while IFS= read -r source; do
  # The files of the compilation database: others, such as those that this configuration leaves out, have no command.
  command=$(grep -F -B1 "\"file\": \"$PWD/$source\"" "$commands" || true)
  [ -n "$command" ] || continue
  case $source in tests/*) depends=$common$of_tests ;; *) depends=$common ;; esac
  key=$(printf '%s\n' "$depends" "${command//"$PWD"/}" | cat - "$source" | sha256sum | cut -c1-32)
  [ -e "$passed/$key" ] || { analysed+=("$source"); keys+=("$key"); }
done < <(find src plugins tools examples tests \( -name '*.cpp' -o -name '*.c' \) | sort)

echo "clang-tidy: ${#analysed[@]} files to analyse"
[ ${#analysed[@]} -gt 0 ] || exit "$failed"

analyse() {  # BUILD SOURCE MARK
  local what=(--header-filter='/(src|plugins|tools|examples|include/meru)/')
  # One check besides, because it refuses to run for the warnings alone.
  case $2 in tests/*) what=(--header-filter='/tests/' --checks='-*,clang-diagnostic-*,bugprone-unused-raii') ;; esac
  if output=$(clang-tidy -p "$1" --quiet "${what[@]}" "$2" 2>&1); then
    : >"$3"
  else
    printf '%s\n' "$output" | grep -v 'warnings generated'
    return 1
  fi
}
export -f analyse
for i in "${!analysed[@]}"; do
  printf '%s\0%s\0' "${analysed[$i]}" "$passed/${keys[$i]}"
done | xargs -0 -n2 -P2 bash -c 'analyse "$0" "$1" "$2"' "$build" || { echo "clang-tidy: findings" >&2; exit 1; }
echo "clang-tidy: clean"
exit "$failed"
