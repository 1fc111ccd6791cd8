#!/usr/bin/env bash
# Installs the Debian packages that are missing. The one list of what MeruLib needs.
#   tools/deps.sh build   to build the library, the command and the examples, to have a screen to record, and to look at it
#   tools/deps.sh test    and to check, test and measure them
#   tools/deps.sh matrix  and to test them on other Debian releases
set -euo pipefail

packages=(
  g++ cmake ninja-build ccache pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev libswscale-dev
  libavfilter-dev libavdevice-dev libpostproc-dev
  libcli11-dev nlohmann-json3-dev ffmpeg help2man
  libxcb1-dev libxcb-shm0-dev libxcb-xfixes0-dev libpulse-dev
  xvfb x11-apps
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  doxygen
  clang-format clang-tidy clang cppcheck gcovr binutils time
  nginx
  xterm x11-xserver-utils pulseaudio pulseaudio-utils
  python3 dpkg-dev file man-db
)
matrix_packages=(debootstrap git rsync)
# Not in every release. Before Debian 12 clang itself comes with its run-time library.
where_there_is=(libclang-rt-dev libnginx-mod-rtmp)
# Debian 11 lacks them. They are headers alone and need nothing else, so those of Debian 12 serve there.
from_bookworm=()
if [ "$(. /etc/os-release 2>/dev/null && echo "${VERSION_CODENAME:-}")" = bullseye ]; then from_bookworm=(libcli11-dev); fi

case "${1:-}" in
  build) where_there_is=() ;;
  test) packages+=("${test_packages[@]}") ;;
  matrix) packages+=("${test_packages[@]}" "${matrix_packages[@]}") ;;
  *) echo "usage: $0 build|test|matrix" >&2; exit 2 ;;
esac

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
  echo "Not a Debian system: nothing was installed. These packages, or their like, are needed: ${packages[*]} ${where_there_is[*]}" >&2
  exit 0
fi

is_installed() { [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null || true)" = installed ]; }
exists() { [ -n "$(apt-cache show --no-all-versions "$1" 2>/dev/null)" ]; }

missing=() perhaps=()
for package in "${packages[@]}"; do
  is_installed "$package" || missing+=("$package")
done
for package in "${where_there_is[@]}"; do
  is_installed "$package" || perhaps+=("$package")
done
# Only the release's lists of packages tell which of those exist; they are fetched below when anything else is missing.
if [ ${#missing[@]} -eq 0 ]; then
  for package in "${perhaps[@]}"; do
    ! exists "$package" || missing+=("$package")
  done
fi
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=(env)
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null || ! sudo true; then
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
# The system's own list of sources stays as it is.
install_from_bookworm() {
  local own folder status=0
  own=$(apt-get indextargets --format '$(LABEL) $(SITE)' 'Created-By: Packages' | sed -n 's/^Debian \(.*\)/\1/p' | head -n 1)
  folder=$(mktemp -d)
  mkdir "$folder/lists"
  chmod 755 "$folder"  # apt fetches as a user of its own
  echo "deb ${own:-http://deb.debian.org/debian} bookworm main" >"$folder/sources.list"
  local options=(-o Dir::Etc::sourcelist="$folder/sources.list" -o Dir::Etc::sourceparts=-
                 -o Dir::State::lists="$folder/lists")
  apt "${options[@]}" update && apt "${options[@]}" install -y --no-install-recommends "$@" || status=1
  "${as_root[@]}" rm -rf "$folder"
  return "$status"
}
install_missing() {
  local here=() there=() package
  apt update || return 1
  for package in "${perhaps[@]}"; do
    if exists "$package"; then missing+=("$package"); else echo "Not in this release: $package"; fi
  done
  for package in "${missing[@]}"; do
    case " ${from_bookworm[*]} " in
      *" $package "*) there+=("$package") ;;
      *) here+=("$package") ;;
    esac
  done
  [ ${#here[@]} -eq 0 ] || apt install -y --no-install-recommends "${here[@]}" || return 1
  [ ${#there[@]} -eq 0 ] || install_from_bookworm "${there[@]}"
}
if ! install_missing; then
  cat "$log" >&2
  echo "The packages could not be installed." >&2
  exit 1
fi
