#!/usr/bin/env bash
# The example for logrotate under a live log, with a collector and without one: between two cuts every line is there,
# and nothing is written behind a hole. With "nocreate" instead of "copytruncate" no line is lost at all.
#
#     logrotate_test.sh SOURCEFOLDER BUILDFOLDER
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
application=
trap '[ -z "$application" ] || kill "$application" 2>/dev/null; rm -rf "$work"' EXIT
export LOCALAPPDATA=$work/local APPDATA=$work/roaming PROGRAMDATA=$work/program SYSTEMROOT=$work/system
fail() { echo "FAILED: $*"; exit 1; }
wait_for() { local i; for i in {1..3000}; do "$@" && return; sleep 0.01; done; fail "waited for: $*"; }

has_grown() { [ -f "$log" ] && [ "$(stat -c %s "$log")" -gt 20000 ]; }

rotate() {
  if command -v logrotate >/dev/null; then
    logrotate --force --state "$work/state" "$work/logrotate.conf"
  else   # what logrotate does
    for i in 3 2 1; do [ ! -f "$log.$i" ] || mv "$log.$i" "$log.$((i + 1))"; done
    if [ "$way" = nocreate ]; then mv "$log" "$log.1"; else cp "$log" "$log.1" && truncate -s 0 "$log"; fi
  fi
}

# A cut may go through a line. All others are whole, and their numbers count from one to the next.
check_part() {
  zcat -f "$1" | LC_ALL=C awk -v RS='\r\n' -v file="$1" '
    /\0/ { print file ": NUL in line " NR; exit bad = 1 }
    NR > 2 && last !~ /^[0-9][0-9][0-9][0-9][0-9]+ / { print file ": torn line " last; exit bad = 1 }
    NR > 3 && last + 0 != before + 1 { print file ": " last + 0 " behind " before; exit bad = 1 }
    { before = last + 0; last = $0 }
    END { if (NR < 4) print file ": only " NR " lines"; exit bad || NR < 4 }' || fail "$1"
}

run() {
  way=$1
  rm -rf "$work/result" && mkdir "$work/result"
  "$work/bin/chaos_application" --name=app --result="$work/result" --threads=1 &
  application=$!
  wait_for test -f "$work/result/app.start"
  log=$(find "$LOCALAPPDATA" -name app.log)
  sed "s#^/home/.*{#$log {#; s#^    copytruncate#    $way#" "$source/packaging/logrotate.conf" >"$work/logrotate.conf"
  for _ in 1 2 3; do
    wait_for has_grown
    rotate
    [ -s "$log.1" ] || fail "nothing was rotated"
  done
  wait_for has_grown
  touch "$work/result/app.stop"
  wait "$application"
  application=
  if [ "$way" = nocreate ]; then
    zcat -f $(ls "$log"* | sort -r) >"$work/whole"
    check_part "$work/whole"
  else
    for part in "$log" "$log".*; do check_part "$part"; done
  fi
  rm -rf "$LOCALAPPDATA"
}

mkdir "$work/bin"
for way in copytruncate nocreate; do
  cp "$build/bin/"{chaos_application,logcollector} "$work/bin"
  run $way
  rm "$work/bin/logcollector"
  run $way
done
