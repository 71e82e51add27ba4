#!/usr/bin/env bash
# The long runs, too long for every CI run: the soak with a million messages
# in the default build and under ThreadSanitizer, and the kill test with 500
# killed posters. Prints how long each took and fails when any of them did.
# QVCORE_LONG_BUILD_DIR names the default build's folder (default
# build/default); the ThreadSanitizer build is the one scripts/tsan.sh uses.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${QVCORE_LONG_BUILD_DIR:-build/default}

bash scripts/install-deps.sh
# An empty launcher clears one that an earlier configure left in the cache.
launcher=""
if command -v ccache >/dev/null; then launcher=ccache; fi
cmake --preset default -B "$build" -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"
cmake --build "$build" -j "$(nproc)" --target qvcore_soak_tests qvcore_kill_tests
cmake --preset tsan -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"
cmake --build --preset tsan -j "$(nproc)" --target qvcore_soak_tests

failed=0
run() {
  local label=$1 start=$SECONDS
  shift
  echo "long: $label"
  if ! "$@"; then
    failed=1
    echo "long: $label FAILED"
  fi
  echo "long: $label took $((SECONDS - start)) s"
}

run "soak, 1,000,000 messages" env QVCORE_SOAK_MESSAGES=1000000 \
  ctest --test-dir "$build" -R '^QVSoakTest\.' --timeout 3600 --output-on-failure
run "soak, 1,000,000 messages, ThreadSanitizer" env QVCORE_SOAK_MESSAGES=1000000 \
  ctest --preset tsan -R '^QVSoakTest\.' --timeout 7200
run "kill test, 500 kills" env QVCORE_KILL_ITERATIONS=500 \
  ctest --test-dir "$build" -R '^QVKillTest\.' --timeout 7200 --output-on-failure
exit "$failed"
