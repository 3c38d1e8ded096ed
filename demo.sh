#!/usr/bin/env bash
# Shows the main job on real input: builds, starts the collector for a living process, streams real files of this
# machine into it at once, and compares what was collected byte by byte. Exit code 1 when a byte differs.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh
setup_packages g++ cmake ninja-build
build release logcollector stream_files

work=$(mktemp -d)
logs="$work/log.$(date +%Y%m%d%H%M%S)"
trap 'rm -rf "$work/input"' EXIT
mkdir -p "$work/input"

# Real input: the package manager's own logs, a compiler's talk, the kernel's symbols, and two large binary files.
g++ -v -x c++ -E - </dev/null >"$work/input/compiler.txt" 2>&1
ls -lR /usr/include >"$work/input/listing.txt" 2>/dev/null
files=("$work/input/compiler.txt" "$work/input/listing.txt")
for candidate in /var/log/dpkg.log /var/log/apt/history.log /var/log/apt/term.log /var/log/alternatives.log \
                 /var/lib/dpkg/status "$(g++ -print-prog-name=cc1plus)" build/release/lib/libos.a; do
  [ -s "$candidate" ] && [ -r "$candidate" ] && files+=("$candidate")
done

echo
echo "== Streaming ${#files[@]} files at once"
build/release/bin/stream_files build/release/bin/logcollector "$logs" "${files[@]}"

echo
echo "== What was collected, in $logs"
ls -l "$logs"
echo
echo "== The last lines of the compiler's log, as the collector wrote them"
tail -n 3 "$logs"/1*compiler.txt.log

echo
echo "== A collector ends when its application has gone"
sleep 60 &
application=$!
build/release/bin/logcollector "--xml=<lc><lcpidapp>$application</lcpidapp></lc>" >"$work/reply" &
collector=$!
until grep -q '</lc>' "$work/reply"; do sleep 0.05; done
echo "start reply: $(cat "$work/reply")"
kill "$application"
wait "$collector"
echo "collector $collector ended with exit code $? after application $application was ended"
