#!/usr/bin/env bash
# Shows the main job on real input: real files streamed through a collector and compared byte by byte, an application
# with children of which one is killed, the command file, the collector's own log, and cleaning. Exit code 1 when a
# byte or a line is missing.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh
setup_packages g++ cmake ninja-build
build release logcollector stream_files demo_application

# Everything that is shown lies in this folder. The programs run from there, as an installation has them side by side.
work=$(mktemp -d)
export LOCALAPPDATA=$work/local APPDATA=$work/roaming PROGRAMDATA=$work/program
mkdir -p "$work/input" "$work/bin"
cp build/release/bin/{logcollector,stream_files,demo_application} "$work/bin"
trap '[ "$BASHPID" -ne $$ ] || rm -rf "$work/input" "$work/bin"' EXIT   # not of a process that is yet to become another
failed=0

show() { printf '\n== %s\n' "$1"; }
fail() { echo "FAILED: $1"; failed=1; }

# Real input: the package manager's own logs, a compiler's talk, the kernel's symbols, and two large binary files.
stream_real_files() {
  local logs candidate
  logs="$work/log.$(date +%Y%m%d%H%M%S)"
  g++ -v -x c++ -E - </dev/null >"$work/input/compiler.txt" 2>&1
  ls -lR /usr/include >"$work/input/listing.txt" 2>/dev/null
  local files=("$work/input/compiler.txt" "$work/input/listing.txt")
  for candidate in /var/log/dpkg.log /var/log/apt/history.log /var/log/apt/term.log /var/log/alternatives.log \
                   /var/lib/dpkg/status "$(g++ -print-prog-name=cc1plus)" build/release/lib/liblogcollector.a; do
    [ -s "$candidate" ] && [ -r "$candidate" ] && files+=("$candidate")
  done

  show "Streaming ${#files[@]} files at once"
  "$work/bin/stream_files" "$work/bin/logcollector" "$logs" "${files[@]}" || fail "a stream differs"
  show "What was collected, in $logs"
  ls -l "$logs"
  show "The last lines of the compiler's log, as the collector wrote them"
  tail -n 3 "$logs"/1*compiler.txt.log
}

# Every line begins with its number, and these count without a gap; a message may have line feeds of its own. Of the messages there must be as
# many as the process has logged, or for one that was killed, at least as many.
check_log() {
  local name=$1 log=${2//\\//} lines=$3 end=$4
  awk -v RS='\r\n' -v name="$name" -v want="$lines" -v end="$end" '
    seen[$1 + 0]++ { ++bad }
    $1 + 0 > last { last = $1 + 0 }
    / says line / { ++said }
    END {
      if (last != NR - 1) ++bad
      printf "  %-14s %8d lines, numbered without a gap: %s, %d of %s%d messages (%s)\n",
             name, NR, bad ? "NO" : "yes", said, end == "killed" ? "at least " : "", want, end
      exit bad || (end == "killed" ? said < want : said != want)
    }' "$log" || fail "lines of $name are missing"
}

run_application() {
  show "An application with four threads, three children like it, and a child that is killed while it logs"
  "$work/bin/demo_application" --children=3 --victims=1 >"$work/processes" || fail "the application failed"
  local name log lines end
  while read -r name log lines end; do check_log "$name" "$log" "$lines" "$end"; done <"$work/processes"
  [ "$(wc -l <"$work/processes")" -eq 5 ] || fail "a process is missing"

  show "The log folders"
  (cd "$work" && find local -name '*.log' -size +0)
  show "How each log begins"
  while read -r name log lines end; do echo "$name:"; head -n 8 "${log//\\//}" | tail -n 3 | cut -c1-150; done \
    <"$work/processes"
}

# A collector that logs itself, for an application that lives as long as it is wanted.
command_collector() {
  show "A collector is flushed and ended by its command file, and tells in its own log"
  sleep 60 &
  local application=$! flush="$PROGRAMDATA/mvr_orvane/common/logcollector/flush" collector log
  MVR_LOGCOLLECTORDEBUG=0 "$work/bin/logcollector" "--xml=<lc><lcpidapp>$application</lcpidapp></lc>" >"$work/reply" &
  collector=$!
  until grep -q '</lc>' "$work/reply"; do sleep 0.05; done
  echo "start reply: $(cat "$work/reply")"
  sleep 0.5
  printf '<cmd>flush</cmd>' >"$flush"
  sleep 0.5
  printf '<cmd>exitall</cmd>' >"$flush"
  wait "$collector" && echo "exit code 0 on the command exitall"
  kill "$application"
  log=$(find "$LOCALAPPDATA" -name logcollector.log | tail -n 1)
  echo "$log:"
  cut -c1-150 "$log" | grep -v 'mem>>>' | tail -n 8
}

collector_ends_with_its_application() {
  show "A collector ends when its application has gone"
  sleep 60 &
  local application=$! collector
  "$work/bin/logcollector" "--xml=<lc><lcpidapp>$application</lcpidapp></lc>" >"$work/reply" &
  collector=$!
  until grep -q '</lc>' "$work/reply"; do sleep 0.05; done
  kill "$application"
  wait "$collector"
  echo "collector $collector ended with exit code $? after application $application was ended"
}

clean() {
  show "Cleaning: log folders before, and after all that nobody uses have been removed"
  (cd "$work" && find local -name 'log.*' -type d | sort)
  "$work/bin/logcollector" --clean
  echo "-- after"
  (cd "$work" && find local -name 'log.*' -type d | sort)
  [ "$(find "$LOCALAPPDATA" -name '*.log' -size +0 | wc -l)" -eq 0 ] || fail "logs are left"
}

stream_real_files
run_application
command_collector
collector_ends_with_its_application
clean
exit $failed
