#!/usr/bin/env bash
# Checks the format of all sources, and all translation units but the tests' with clang-tidy.
#   tests/lint.sh [BUILD_FOLDER]   a configured build folder, build/dev by default
# A file that passed is not analysed again until it, a header, the checks or its compile command change; what has passed
# is noted in BUILD_FOLDER/lint.
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

passed=$build/lint
mkdir -p "$passed"
common=$({
  clang-tidy --version
  cat .clang-tidy
  find "${folders[@]}" -name '*.h' -not -path 'tests/*' -print0 | sort -z | xargs -0 sha256sum
} | sha256sum)

analysed=() keys=()
while IFS= read -r source; do
  # The files of the compilation database: others, such as those that this configuration leaves out, have no command.
  command=$(grep -F -B1 "\"file\": \"$PWD/$source\"" "$commands" || true)
  [ -n "$command" ] || continue
  key=$(printf '%s\n' "$common" "$command" | cat - "$source" | sha256sum | cut -c1-32)
  [ -e "$passed/$key" ] || { analysed+=("$source"); keys+=("$key"); }
done < <(find src plugins tools examples \( -name '*.cpp' -o -name '*.c' \) | sort)

echo "clang-tidy: ${#analysed[@]} files to analyse"
[ ${#analysed[@]} -gt 0 ] || exit "$failed"

analyse() {  # BUILD SOURCE MARK
  if output=$(clang-tidy -p "$1" --quiet --header-filter='/(src|plugins|tools|examples|include/meru)/' "$2" 2>&1); then
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
