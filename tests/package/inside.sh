#!/usr/bin/env bash
# The part of check_debs.sh that runs inside the bare system.
#   inside.sh VERSION
set -euo pipefail
version=$1
packages=$(printf '%s\n' /merulib/*.deb | sed 's|.*/\([^_]*\)_.*|\1|')
fail() { echo "FAILED: $*" >&2; exit 1; }
step() { printf '\n== %s\n' "$*"; }
quietly() { "$@" >/tmp/log 2>&1 </dev/null || { cat /tmp/log; fail "$*"; }; }
install() { quietly apt-get install -y --no-install-recommends "$@"; }
as_user() { runuser -u tester -- "$@"; }

step "installing $(echo $packages)"
quietly apt-get update
install /merulib/*.deb
# Unquoted: names are words.
dpkg-query -W -f '${binary:Package} ${Version} ${db:Status-Status}\n' $packages
useradd -m tester
as_user meru --version
ldconfig -p | grep -F libMeruLib || fail "the loader does not know the library"

step "using them as an ordinary user"
install g++ cmake ninja-build pkg-config binutils ffmpeg man-db bash-completion
as_user /merulib/tests/use.sh /merulib/examples /usr "$version" cc
for page in meru meru-screen meru-record meru-remux meru-repair meru-recover meru-index; do
  as_user man "$page" 2>&1 | grep -q "^NAME" || fail "no manual page $page"
done
echo "man shows the pages"
as_user bash -c '. /usr/share/bash-completion/bash_completion; _load_comp meru 2>/dev/null || _completion_loader meru || true
  complete -p meru' | grep -qx 'complete -F _meru meru' || fail "the completion is not loaded"
echo "the completion is loaded when it is wanted"

# Twice: what a first removal left would be there before the second one, too.
files() { find / -xdev -path /merulib -prune -o -path /proc -prune -o -path /tmp -prune -o -path '/home/*' -prune -o -print | sort; }
step "removing them"
quietly apt-get purge -y $packages
left=$(find / -xdev -path /merulib -prune -o -iname '*meru*' -print)
[ -z "$left" ] || fail "these were left: $left"
if dpkg-query -W -f '${binary:Package} ${db:Status-Status}\n' | grep -i meru; then fail "the system still knows them"; fi
if ldconfig -p | grep -i meru; then fail "the loader still knows the library"; fi
files >/tmp/before
install /merulib/*.deb
[ -x /usr/bin/meru ] || fail "they were not installed again"
quietly apt-get purge -y $packages
files | diff /tmp/before - || fail "the files are not those of before"
echo "nothing of them is left"
