#!/usr/bin/env bash
# Builds the libFuzzer targets with Clang under AddressSanitizer and
# UndefinedBehaviorSanitizer and runs each for SECONDS (default 60) on its
# seed corpus, fuzz/corpus/<name>/. Installs the Debian packages first when
# missing. QVCORE_FUZZ_BUILD names the build folder (default build/fuzz);
# inputs that libFuzzer finds go to <build>/corpus-<name>, never into fuzz/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=${QVCORE_FUZZ_BUILD:-build/fuzz}

bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)"

for corpus in fuzz/corpus/*/; do
  name=$(basename "$corpus")
  fuzzer=$build/qvcore_${name}_fuzzer
  work=$build/corpus-$name
  mkdir -p "$work"
  echo "fuzz: $name for ${seconds}s"
  "$fuzzer" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$build/" -print_final_stats=1 "$work" "$corpus"
done
