#!/usr/bin/env bash
# tutorial_test.sh SOURCES BUILD: runs every command of docs/tutorial.md in one shell, in a home of its own, and looks
# for what the document says that they print. "…" stands for anything.
set -euo pipefail
sources=$1
build=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
cd "$sources"
unset "${!MVR_@}" LOCALAPPDATA APPDATA PROGRAMDATA SYSTEMROOT
export HOME=$home

# One command with what follows it up to the next one. A here-document belongs to its command.
command= expected=() here=
check() {
  [ -n "$command" ] || return 0
  echo "\$ $command"
  eval "${command//build\/release/$build}" >"$home/output" 2>"$home/error" || { cat "$home"/{output,error}; exit 1; }
  cat "$home/output"
  local line pattern
  for line in "${expected[@]}"; do
    pattern=$(printf '%s' "$line" | sed 's/[][\.*^$]/\\&/g; s/…/.*/g; s/  */ */g')
    grep -q -- "$pattern" "$home/output" || { echo "not printed: $line"; cat "$home/error"; exit 1; }
  done
}
commands=0
while IFS= read -r line; do
  [[ $line == "    "* || (-n $here && -z $line) ]] || continue
  line=${line#    }
  if [ -n "$here" ]; then
    command+=$'\n'$line
    [ "$line" != END ] || here=
  elif [[ $line == '$ '* ]]; then
    check
    command=${line#\$ } expected=()
    commands=$((commands + 1))
    [[ $line != *"<<'END'"* ]] || here=1
  else
    expected+=("$line")
  fi
done <docs/tutorial.md
check
[ "$commands" -ge 15 ] || { echo "only $commands commands found"; exit 1; }
[ ! -e "$home/lc" ] || { echo "something is left"; exit 1; }
