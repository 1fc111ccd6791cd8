#!/usr/bin/env bash
# Builds and tests this tree on the Debian releases whose FFmpeg majors it is written for: in the system that this
# machine runs, and in two others, made with debootstrap.
#   tests/matrix.sh [CACHE_FOLDER]   ${XDG_CACHE_HOME:-$HOME/.cache}/merulib/matrix by default; needs root
# The systems, what is built in them and their compiler caches stay in CACHE_FOLDER/RELEASE, so that a second run does
# what has changed only. Their packages come from the mirror that this machine's apt uses, and through its http_proxy.
set -euo pipefail
cd "$(dirname "$0")/.."
others=(bullseye trixie)

[ "$(id -u)" -eq 0 ] || { echo "tests/matrix.sh needs root: it makes other systems and changes into them" >&2; exit 1; }
# What is mounted for the other systems is seen by this script and its children alone, and goes with them, however they end.
if [ -z "${MERU_MATRIX_MOUNTS:-}" ]; then
  exec env MERU_MATRIX_MOUNTS=own unshare --mount --propagation private "$0" "$@"
fi
cache=${1:-${XDG_CACHE_HOME:-$HOME/.cache}/merulib/matrix}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT

step() { printf '\n== %s\n' "$*"; }

mirror() {
  local known
  known=$(apt-get indextargets --format '$(LABEL) $(SITE)' 'Created-By: Packages' 2>/dev/null |
    sed -n 's/^Debian \(http\)/\1/p' | head -n 1)
  echo "${known:-http://deb.debian.org/debian}"
}

make_system() {  # RELEASE
  local root=$cache/$1
  if [ ! -e "$root/.complete" ]; then
    rm -rf --one-file-system "$root"
    debootstrap --variant=minbase "$1" "$root" "$(mirror)" >"$results/debootstrap.log" ||
      { cat "$results/debootstrap.log"; return 1; }
    : >"$root/.complete"
  fi
  cp /etc/resolv.conf /etc/hosts "$root/etc/" && mount -t proc proc "$root/proc" && mount --rbind /dev "$root/dev"
}

# Only what differs is written, so that what has not changed is not built again. Not by the files' own times: another
# checkout's may be older than what was built of the last one.
copy_tree() {  # RELEASE
  local root=$cache/$1/merulib
  rm -rf "$root/new" && mkdir -p "$root/new" "$root/tree" "$root/ccache" || return 1
  git -c safe.directory="$PWD" ls-files -z -co --exclude-standard |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar --null -T - -c | tar -x -C "$root/new" --no-same-owner || return 1
  rsync -rlp --checksum --delete "$root/new/" "$root/tree/" && rm -rf "$root/new"
}

inside() {  # RELEASE COMMAND...
  local root=$cache/$1
  shift
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 CCACHE_DIR=/merulib/ccache TERM="${TERM:-dumb}" \
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} ${no_proxy:+no_proxy="$no_proxy"} \
    chroot "$root" "$@"
}

here() {  # RELEASE COMMAND...
  shift
  "$@"
}

# One line about a system, from the output of its tests.
summary() {  # RELEASE LOG RUN
  local release=$1 log=$2 run=$3 ffmpeg compiler passed failed skipped
  ffmpeg=$("$run" "$release" ffmpeg -version 2>/dev/null | sed -n '1s/^ffmpeg version \([^ ]*\).*/\1/p')
  compiler=$("$run" "$release" c++ --version 2>/dev/null | head -n 1)
  local count='/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /'
  passed=$(awk "$count && / Passed /" "$log" | wc -l)
  skipped=$(awk "$count && /\\*\\*\\*Skipped/" "$log" | wc -l)
  failed=$(($(awk "$count" "$log" | wc -l) - passed - skipped))
  printf '%s: FFmpeg %s, %s: %d passed, %d failed, %d skipped\n' "$release" "${ffmpeg:-?}" "${compiler:-?}" \
    "$passed" "$failed" "$skipped"
}

# The presets need a newer CMake than the oldest release has; these are the variables of the preset "dev".
test_on() {  # RELEASE RUN TREE BUILD
  local release=$1 run=$2 tree=$3 build=$4 log=$results/$1.log status=0
  step "$release: packages"
  "$run" "$release" "$tree/tools/deps.sh" test || status=1
  step "$release: build"
  [ $status -ne 0 ] || "$run" "$release" cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMERU_WERROR=ON -DMERU_BUILD_FUZZ=ON >"$results/cmake.log" || { cat "$results/cmake.log"; status=1; }
  [ $status -ne 0 ] || "$run" "$release" cmake --build "$build" || status=1
  : >"$log"
  if [ $status -eq 0 ]; then
    step "$release: tests"
    "$run" "$release" sh -c 'cd "$1" && exec ctest -j2 --output-on-failure' ctest "$build" | tee "$log" || status=1
    grep -q '^100% tests passed' "$log" || status=1
  fi
  summary "$release" "$log" "$run" >"$results/$release.line"
  [ $status -eq 0 ] || sed -i 's/$/ (FAILED)/' "$results/$release.line"
  return $status
}

step "the systems"
tools/deps.sh matrix
own=$(. /etc/os-release && echo "${VERSION_CODENAME:-$ID}")
failed=0
tested=("$own")
for release in "${others[@]}"; do
  if [ "$release" = "$own" ]; then continue; fi
  tested+=("$release")
  if make_system "$release" && copy_tree "$release"; then
    test_on "$release" inside /merulib/tree /merulib/build || failed=1
  else
    echo "$release: the system could not be made (FAILED)" >"$results/$release.line"
    failed=1
  fi
done
test_on "$own" here "$PWD" "$PWD/build/dev" || failed=1

step "results"
for release in "${tested[@]}"; do cat "$results/$release.line"; done
exit "$failed"
