#!/usr/bin/env bash
# Builds QVCore with a preset (default: "default"; also "asan-ubsan", "tsan")
# and runs all its tests. Installs the Debian packages first when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}

bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"
