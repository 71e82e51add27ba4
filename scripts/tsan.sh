#!/usr/bin/env bash
# Builds, under ThreadSanitizer (preset "tsan"), only the test programs whose
# tests run several threads, and runs those tests: serial queues, run loops,
# timers, notifications, sessions and queues posted from many threads, the
# configuration's concurrent readers and writers, the queue service's flush
# cycle, disk cache and compression beside the writing of the body, a long
# chain of immediate failures, enable cycles that deliver, the crash hook,
# published snapshots, the environment's host threads, the netlink watcher
# under route changes, the log relay, the libcurl session, the fault matrix
# against a real server, and the soak. Installs the Debian packages first
# when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

suites=(platform model config queue core environment integration faults soak)
fixtures=(
  QVSerialQueueTest QVRunLoopTest QVRunLoopWatchTest QVRepeatingTimerTest
  QVNotificationCenterTest QVApplicationLifecycleTest
  QVQueueTest QVSessionTest
  QVConfigServiceTest
  QVQueueServiceTest QVQueueServiceCutTest QVDataCompressionTest
  QVCoreUncaughtExceptionTest QVCoreCycleTest QVDeliveryLedgerTest QVPublishedTest
  QVApplicationLifecycleManagerTest QVOrientationManagerTest QVNetworkTest
  VintraZANLogClientTest
  QVServerConnectionIntegrationTest QVCrashFlushTest
  QVFaultMatrixTest QVImmediateFailureChainTest
  QVNetlinkReachabilityTest
  QVSoakTest
)

bash scripts/install-deps.sh
# An empty launcher clears one that an earlier configure left in the cache.
launcher=""
if command -v ccache >/dev/null; then launcher=ccache; fi
cmake --preset tsan -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"
targets=()
for suite in "${suites[@]}"; do targets+=(--target "qvcore_${suite}_tests"); done
cmake --build --preset tsan -j "$(nproc)" "${targets[@]}"
pattern=$(
  IFS='|'
  echo "${fixtures[*]}"
)
# The relay test that fills a stalled peer with 120 texts of 64 KiB takes
# minutes under ThreadSanitizer and its one-second read window does not
# hold there; the default and sanitizer builds run it.
ctest --preset tsan -R "(^|/)(${pattern})\." -E "ARelayWhoseToolStopsReadingDropsAndCountsInsteadOfWaiting"
