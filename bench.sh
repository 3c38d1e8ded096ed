#!/usr/bin/env bash
# Builds release and prints what the collector costs beside the least that could do its work, and beside those of
# socat, syslog-ng and rsyslog that are installed. ./bench.sh --peers installs them first (without starting them).
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh
setup_packages g++ cmake ninja-build
if [ "${1:-}" = --peers ]; then
  shift
  setup_packages socat syslog-ng-core libestr0 libfastjson4
  # The two daemons refuse to be installed beside each other: this one is only unpacked.
  if [ ! -x /usr/sbin/rsyslogd ] && [ ! -x build/peers/usr/sbin/rsyslogd ]; then
    echo "== Unpacking: rsyslog"
    mkdir -p build/peers
    (cd build/peers && apt-get download -qq rsyslog >/dev/null 2>&1 && dpkg -x rsyslog_*.deb . && rm -f rsyslog_*.deb)
  fi
fi
build release logcollector floor_collector floor_port collector_bench
ulimit -n "$(ulimit -Hn)"
exec build/release/bin/collector_bench "${1:-5}"
