#!/usr/bin/env bash
# Builds release and prints what collector, logger and ring buffer cost, as ratios: beside the least that could do their
# work, and beside those of socat, syslog-ng, rsyslog, spdlog and glog that are installed. ./bench.sh --peers installs
# them first (without starting them). A number is that of the rounds.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh
setup_packages g++ cmake ninja-build libbenchmark-dev
if [ "${1:-}" = --peers ]; then
  shift
  setup_packages socat syslog-ng-core libestr0 libfastjson4 libspdlog-dev libgoogle-glog-dev
  [ -x /usr/sbin/rsyslogd ] || setup_unpacked rsyslog
fi
build release logcollector floor_collector floor_port application_start collector_bench logger_bench clean_bench ring_bench peers
ulimit -n "$(ulimit -Hn)"
rounds=${1:-3}
status=0
for bench in "logger_bench $((rounds * 3))" "clean_bench 1" ring_bench "collector_bench $rounds"; do
  # shellcheck disable=SC2086
  build/release/bin/$bench || status=1
done
exit $status
