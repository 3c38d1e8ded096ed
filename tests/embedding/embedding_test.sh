#!/usr/bin/env bash
# A project of somebody else embeds this one, and what its program and its plug-in log goes through the collector.
#
#     embedding_test.sh SOURCEFOLDER BUILDFOLDER source|prefix
#
# source: by add_subdirectory. prefix: what BUILDFOLDER installs, after it was moved.
set -euo pipefail
source=$1 build=$2 how=$3
here=$source/tests/embedding project=$build/embedding_$how
work=$(mktemp -d)   # programs run from there: the build folder may have a name that makes them count as collectors
trap 'rm -rf "$work"' EXIT
export LOCALAPPDATA=$work/local APPDATA=$work/roaming PROGRAMDATA=$work/program SYSTEMROOT=$work/system MVR_DEBUG=1
fail() { echo "FAILED: $*"; exit 1; }

# The code of the first example of README.md that begins with this line.
example() { awk -v first="    $1" '$0 == first { on = 1 } on && /^[^ ]/ { exit } on { print substr($0, 5) }' \
                "$source/README.md"; }

# What the program NAME has logged, which is in one file.
log_of() { find "$LOCALAPPDATA" -name "$1*.log"; }
expect_collected() {
  local log
  log=$(log_of "$1")
  [ "$(wc -l <<<"$log")" -eq 1 ] || fail "not one log of $1: $log"
  grep -q "LogCollector initialization complete" "$log" || fail "$1 had no collector"
  grep -q "$2" "$log" || fail "$1 did not log <$2>"
}

mkdir -p "$project"
example '#include <logcollector/logcollector.h>' >"$work/viewer.cpp"
cmp -s "$work/viewer.cpp" "$project/viewer.cpp" || cp "$work/viewer.cpp" "$project"
while read -r line; do
  grep -qF "$line" "$here/CMakeLists.txt" || fail "README.md has another CMake line: $line"
done < <(example 'add_executable(viewer viewer.cpp)' | sed 's#viewer\.cpp#${CMAKE_BINARY_DIR}/viewer.cpp#')

if [ "$how" = source ]; then
  options=(-DEMBED_SOURCE="$source")
else
  cmake --install "$build" --prefix "$work/first" >/dev/null
  mv "$work/first" "$work/prefix"
  [ -z "$(find "$work/prefix" -name 'plat_*' -o -name '*_impl.h')" ] || fail "private headers are installed"
  options=(-DCMAKE_PREFIX_PATH="$work/prefix" --fresh)
  PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name logcollector.pc)")
  export PKG_CONFIG_PATH
  g++ -std=c++20 "$work/viewer.cpp" $(pkg-config --cflags --libs logcollector) -o "$work/prefix/bin/viewer"
fi
cmake -S "$here" -B "$project" -G Ninja -DCMAKE_CXX_FLAGS="-O0 -Wall -Wextra" "${options[@]}" >"$work/output" ||
  { cat "$work/output"; fail "configuring"; }
cmake --build "$project" --target viewer host plugin $([ "$how" = source ] || echo headers) >"$work/output" 2>&1 ||
  { tail -n 40 "$work/output"; fail "building"; }

cp -r "$project/out" "$work/bin"
"$work/bin/viewer"
expect_collected viewer 'viewer  .* opened <a.tif> in 12 ms'
mkdir "$work/host"   # the collector is beside the plug-ins, not beside their host
mv "$work/bin/host" "$work/host"
cp "$work/bin/libplugin.so" "$work/bin/second.so"
"$work/host/host" "$work/bin/libplugin.so" "$work/bin/second.so" 2>/dev/null
for name in first second; do
  expect_collected $name "VA $name says 12"
  expect_collected $name 'V. the end'
done

[ "$how" = prefix ] || exit 0

rm -rf "$LOCALAPPDATA"
"$work/prefix/bin/viewer"   # with no collector beside it, but in its prefix
expect_collected viewer 'opened <a.tif>'

# A program that gets no collector says why, and logs.
expect_told() {
  rm -rf "$LOCALAPPDATA"
  "$1"
  grep -q "VE LogCollector $2 <.*>; this process writes its log itself" "$(log_of viewer)" || fail "not told: $2"
  grep -q 'opened <a.tif>' "$(log_of viewer)" || fail "nothing is logged"
}
cp -r "$work/bin" "$work/logcollector"
expect_told "$work/logcollector/viewer" 'is not started by a program that has "logcollector" in its path'
cp /bin/false "$work/bin/logcollector"
expect_told "$work/bin/viewer" 'does not start or gives no port'
rm "$work/bin/logcollector"
expect_told "$work/bin/viewer" 'is not installed, and there is none at'
