#!/usr/bin/env bash
# Sets up what is missing, builds, and runs every test: natively, then under the address and undefined-behaviour
# sanitizers. ./test.sh --tsan runs them under the thread sanitizer instead. TEST_TRIES is how often a case that fails is
# tried (1).
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh
setup_packages g++ cmake ninja-build libgtest-dev libcli11-dev nlohmann-json3-dev libfmt-dev libarchive-dev \
  libpcre2-dev lnav \
  dpkg-dev lintian logrotate man-db pkg-config `# for the tests of the package and of embedding` \
  openssl librelp0 libestr0 libfastjson4 libivykis0 libnet1 libwrap0 `# for those of forwarding`
setup_unpacked rsyslog rsyslog-relp syslog-ng-core

run() {
  build "$1"
  echo "== Testing $1"
  ctest --preset "$1" --progress --repeat "until-pass:${TEST_TRIES:-1}"
}

if [ "${1:-}" = --tsan ]; then
  run tsan
else
  run release
  run asan
fi
