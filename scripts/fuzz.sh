#!/usr/bin/env bash
# Builds the libFuzzer targets with Clang under AddressSanitizer and
# UndefinedBehaviorSanitizer and runs each for SECONDS (default 60) on its
# seed corpus. Installs the Debian packages first when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S fuzz -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/fuzz -j "$(nproc)"

for corpus in fuzz/corpus/*/; do
  name=$(basename "$corpus")
  fuzzer=build/fuzz/qvcore_${name}_fuzzer
  work=build/fuzz/corpus-$name
  mkdir -p "$work"
  echo "fuzz: $name for ${seconds}s"
  "$fuzzer" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix=build/fuzz/ -print_final_stats=1 "$work" "$corpus"
done
