#!/usr/bin/env bash
# The Debian package: it is built, checked, installed into a folder, used from there, and removed. What the machine has
# no program for is left out and said.
#
#     package_test.sh SOURCEFOLDER BUILDFOLDER
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C.UTF-8
fail() { echo "FAILED: $*"; exit 1; }
has() { command -v "$1" >/dev/null || { echo "left out: $1 is missing"; return 1; }; }

if has man; then
  for manual in "$source"/packaging/*.1 "$source"/lcctl/man/*.1; do
    [ -f "$manual" ] || continue
    warnings=$(man --warnings -E UTF-8 -l -Tutf8 -Z "$manual" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$manual: $warnings"
  done
fi

# What bash offers for the last word of a command line.
complete_words() {
  bash -c 'source "$1"; COMP_WORDS=("${@:2}"); COMP_CWORD=$(($# - 2)); compopt() { :; }; "_$2"; echo "${COMPREPLY[*]}"' \
    bash "$source/packaging/logcollector.bash" "$@"
}
[ "$(complete_words logcollector --h)" = "--hourstokeep=" ] || fail "completion of logcollector"

has dpkg-shlibdeps || exit 0
cpack --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/output" 2>&1 || { cat "$work/output"; fail cpack; }
package=$(echo "$work"/package/*.deb)
if has lintian; then
  lintian --fail-on error "$package" >"$work/output" 2>&1 ||
    { cat "$work/output"; fail lintian; }
fi

# A folder takes the place of the machine's root; what the package depends on is looked up in the machine's own list.
[ "$(id -u)" -eq 0 ] || { echo "left out: only root installs"; exit 0; }
root=$work/root
mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
cp /var/lib/dpkg/status "$root/var/lib/dpkg"
on_root() { dpkg --root="$root" --force-script-chrootless --log="$work/dpkg.log" "$@" >"$work/output" 2>&1 ||
              { cat "$work/output"; fail "dpkg $*"; }; }
if ! grep -q '^Version:' "$root/var/lib/dpkg/status"; then echo "left out: dpkg has no list here"; exit 0; fi
on_root --install "$package"
flush=$root/var/lib/mvr_orvane/common/logcollector/flush
if has systemd-tmpfiles; then
  [ "$(stat -c '%U %a %s' "$flush")" = "root 644 0" ] || fail "the command file is not as it should be"
  echo '<cmd>flush</cmd>' >"$flush"
fi
if has systemd-analyze; then
  XDG_RUNTIME_DIR=$work systemd-analyze --user --man=no verify "$root"/usr/lib/systemd/user/*.timer >"$work/output" 2>&1 ||
    { cat "$work/output"; fail "the timer"; }
fi

# An application without a collector beside it finds the package's.
mkdir "$work/bin"
cp "$build/bin/demo_application" "$work/bin"
LOCALAPPDATA=$work/local APPDATA=$work/roaming PROGRAMDATA=$work/program SYSTEMROOT=$root/usr \
  "$work/bin/demo_application" --lines=1 >"$work/output"
grep -q ' collected$' "$work/output" || fail "the application logged itself: $(cat "$work/output")"

on_root --purge logcollector
left=$(find "$root" -not -path "$root/var/lib/dpkg*" -not -type d)
[ -z "$left" ] || fail "the package leaves $left"
[ ! -d "$root/var/lib/mvr_orvane" ] || fail "the package leaves the folder of its command file"
