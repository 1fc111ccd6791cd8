#!/usr/bin/env bash
# Installs the Debian packages that are missing. The one list of what MeruLib needs.
#   tools/deps.sh build   to build the library, the command and the examples, and to look at what they record
#   tools/deps.sh test    and to check, test and measure them
set -euo pipefail

packages=(
  g++ cmake ninja-build ccache pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev libswscale-dev
  libavfilter-dev libavdevice-dev libpostproc-dev
  libcli11-dev nlohmann-json3-dev ffmpeg help2man
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  doxygen
  clang-format clang-tidy clang libclang-rt-dev binutils time
  nginx libnginx-mod-rtmp
  python3 dpkg-dev file man-db
)

case "${1:-}" in
  build) ;;
  test) packages+=("${test_packages[@]}") ;;
  *) echo "usage: $0 build|test" >&2; exit 2 ;;
esac

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
  echo "Not a Debian system: nothing was installed. These packages, or their like, are needed: ${packages[*]}" >&2
  exit 0
fi

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=(env)
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "These packages are missing, and installing them needs root or sudo: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo env)
fi

echo "Installing: ${missing[*]}"
log=$(mktemp)
# The web server is wanted as a program: without this, its package would start it as a service.
policy=/usr/sbin/policy-rc.d
if [ -e "$policy" ]; then
  trap 'rm -f "$log"' EXIT
else
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod +x "$policy"
  trap 'rm -f "$log"; "${as_root[@]}" rm -f "$policy"' EXIT
fi
apt() { "${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get "$@" >"$log" 2>&1 </dev/null; }
if ! { apt update && apt install -y --no-install-recommends "${missing[@]}"; }; then
  cat "$log" >&2
  echo "The packages could not be installed." >&2
  exit 1
fi
