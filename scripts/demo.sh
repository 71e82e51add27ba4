#!/usr/bin/env bash
# The main job: builds QVCore and runs the example script through
# qvcore-shell. Installs the Debian packages first when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target qvcore-shell
build/default/tools/shell/qvcore-shell examples/demo.qvs
