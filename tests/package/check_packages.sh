#!/usr/bin/env bash
# Makes the Debian packages of a build folder, looks at what they hold and say of themselves, and uses them without
# installing them. Exit status 77 where they cannot be made.
#   check_packages.sh SOURCE BUILD C_COMPILER VERSION CPACK TRIPLET LIBDIR
set -euo pipefail
source=$1 build=$2 compiler=$3 version=$4 cpack=$5 triplet=$6 libdir=$7
here=$(cd "$(dirname "$0")" && pwd)
fail() { echo "FAILED: $*" >&2; exit 1; }
skip() { echo "SKIPPED: $*" >&2; exit 77; }
for program in dpkg-deb dpkg-shlibdeps file; do
  command -v "$program" >/dev/null || skip "packages are made with $program, which is missing"
done
[ "$libdir" = "lib/$triplet" ] || skip "this build installs into $libdir, not into lib/$triplet as packages must"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/made" >cpack.log 2>&1 || fail "$(cat cpack.log)"

major=${version%%.*}
library=libmerulib$major
architecture=$(dpkg --print-architecture)
deb() { echo "$work/made/${1}_${version}_$architecture.deb"; }
packages=("$library" libmerulib-dev)
[ ! -e "$build/tools/meru/meru" ] || packages+=(merulib-tools)

expected_files() {  # PACKAGE
  printf '%s\n' "usr/share/doc/$1/changelog.gz" "usr/share/doc/$1/copyright"
  case $1 in
    "$library") printf '%s\n' "usr/$libdir/libMeruLib.so.$major" "usr/$libdir/libMeruLib.so.$version" ;;
    libmerulib-dev)
      (cd "$source" && printf 'usr/%s\n' include/meru/*.h)
      printf "usr/$libdir/%s\n" libMeruLib.so pkgconfig/merulib.pc \
        cmake/MeruLib/MeruLib{Config,ConfigVersion,Targets,Targets-KIND}.cmake
      ;;
    merulib-tools)
      printf '%s\n' usr/bin/meru usr/share/bash-completion/completions/meru
      (cd "$build/tools/meru/man" 2>/dev/null && printf 'usr/share/man/man1/%s\n' *.gz)
      ;;
  esac
}

field() { dpkg-deb -f "$(deb "$1")" "$2"; }
depends() {  # PACKAGE DEPENDENCY: with its version where that is given
  tr ',' '\n' <<<"$(field "$1" Depends)" | sed 's/^ *//' | grep -qE "^$2$" || fail "$1 does not depend on $2"
}

for package in "${packages[@]}"; do
  [ -e "$(deb "$package")" ] || fail "no package $package: $(ls made)"
  dpkg-deb -x "$(deb "$package")" root
  dpkg-deb -e "$(deb "$package")" "control.$package"
  diff <(expected_files "$package" | sort) \
    <(dpkg-deb --fsys-tarfile "$(deb "$package")" | tar t | sed -n 's|^\./||; s/Targets-[a-z]*\.cmake/Targets-KIND.cmake/; /[^/]$/p' | sort) ||
    fail "$package holds other files than it should"
  if dpkg-deb -c "$(deb "$package")" | awk '{ print $2 }' | grep -v '^root/root$'; then fail "$package: files of a user"; fi
  [ "$(field "$package" Package) $(field "$package" Version)" = "$package $version" ] || fail "$package: another name"
  field "$package" Maintainer | grep -qE '^MeruLib developers <[^ ]+@[^ ]+>$' || fail "$package: maintainer"
  field "$package" Section | grep -qE '^(libs|libdevel|video)$' || fail "$package: section"
  [ "$(field "$package" Description | wc -l)" -gt 3 ] || fail "$package: hardly a description"
  (cd root && md5sum --quiet -c "../control.$package/md5sums") || fail "$package: sums"
done
ls made/*.deb | wc -l | grep -qx "${#packages[@]}" || fail "packages nobody knows of: $(ls made)"

for dependency in 'libavformat[0-9]+ .*' 'libavcodec[0-9]+ .*' 'libc6 .*'; do depends "$library" "$dependency"; done
depends libmerulib-dev "$library \(= $version\)"
[ "$(cat "control.$library/shlibs")" = "libMeruLib $major $library (>= $version)" ] || fail "shlibs"
[ "$(cat "control.$library/triggers")" = "activate-noawait ldconfig" ] || fail "triggers"
if [ -e root/usr/bin/meru ]; then
  depends merulib-tools "$library \(= $version\)"
  # What the recorder of the screen is made of; a build leaves out what is missing.
  for part in libxcb1 libxcb-shm0 libxcb-xfixes0 'libpulse0(t64)?'; do depends merulib-tools "$part( \(.*\))?"; done
fi

if grep -rlF -e "$source" -e "$build" root; then fail "a folder of the build is named in these files"; fi
while IFS= read -r binary; do
  if readelf -d "$binary" | grep -E 'RPATH|RUNPATH'; then fail "$binary says where its libraries lie"; fi
  if readelf -S "$binary" | grep -F .debug_; then fail "$binary is not stripped"; fi
done < <(find root/usr/bin root/usr/lib -type f \( -name meru -o -name '*.so.*' \))

export LD_LIBRARY_PATH=$work/root/usr/$libdir
"$here/use.sh" "$source/examples" "$work/root/usr" "$version" "$compiler"
echo "${#packages[@]} packages: ${packages[*]}"
