#!/usr/bin/env bash
# Makes the Debian packages and installs them in a bare system of this machine's release: builds examples against them,
# records and repairs as an ordinary user, and removes them, after which nothing of them may be left.
#   tests/package/check_debs.sh [CACHE_FOLDER]   ${XDG_CACHE_HOME:-$HOME/.cache}/merulib/packages by default
# Needs root and debootstrap, else says so and exits with status 77. It takes minutes, so it is no part of ./test.sh. The
# bare system and the archives of what is installed in it stay in the folder; it takes the mirror of this machine's apt.
set -euo pipefail
cd "$(dirname "$0")/../.."
step() { printf '\n== %s\n' "$*"; }
skip() { echo "SKIPPED: $*" >&2; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "a system to install the packages in can only be made by root"
command -v debootstrap >/dev/null || skip "debootstrap is missing: apt-get install debootstrap"
# What is mounted is seen by this script and its children alone, and goes with them, however they end.
if [ -z "${MERU_OWN_MOUNTS:-}" ]; then
  exec env MERU_OWN_MOUNTS=1 unshare --mount --propagation private "$0" "$@"
fi

release=$(. /etc/os-release && echo "$VERSION_CODENAME")
cache=${1:-${XDG_CACHE_HOME:-$HOME/.cache}/merulib/packages}
mkdir -p "$cache/archives/partial"
cache=$(cd "$cache" && pwd)
root=$cache/try
trap 'rm -rf --one-file-system "$root" || true' EXIT

step "the packages"
cmake --preset release >/dev/null
cmake --build --preset release
rm -rf build/release/packages
cpack -G DEB --config build/release/CPackConfig.cmake -B build/release/packages
if command -v lintian >/dev/null; then
  lintian --allow-root --fail-on error build/release/packages/*.deb
else
  echo "lintian is not installed, so it does not look at them"
fi

step "a bare $release"
mirror=$(apt-get indextargets --format '$(LABEL) $(SITE)' 'Created-By: Packages' | sed -n 's/^Debian \(http\)/\1/p' | head -n 1)
if [ ! -e "$cache/$release/.complete" ]; then
  rm -rf --one-file-system "${cache:?}/$release"
  debootstrap --variant=minbase "$release" "$cache/$release" "${mirror:-http://deb.debian.org/debian}" >"$cache/debootstrap.log" ||
    { cat "$cache/debootstrap.log"; exit 1; }
  : >"$cache/$release/.complete"
fi
rm -rf --one-file-system "$root"
cp -a "$cache/$release" "$root"
cp /etc/resolv.conf /etc/hosts "$root/etc/"
mkdir -p "$root/merulib/tests"
cp -r build/release/packages/*.deb examples "$root/merulib/"
cp tests/package/use.sh tests/package/inside.sh "$root/merulib/tests/"
mount -t proc proc "$root/proc"
mount --bind "$cache/archives" "$root/var/cache/apt/archives"

version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' build/release/CPackConfig.cmake)
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
  ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} ${no_proxy:+no_proxy="$no_proxy"} \
  chroot "$root" /merulib/tests/inside.sh "$version"
umount "$root/proc" "$root/var/cache/apt/archives"
