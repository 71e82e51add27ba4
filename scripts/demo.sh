#!/usr/bin/env bash
# The main job: builds QVCore and its tools, starts a qvcore-collector on a
# free port, and runs examples/demo.qvs through qvcore-shell against it: two
# modules posting from several threads, a failed post that goes to the disk
# cache and is sent at the next flush, and lifecycle events. Ends with the
# client's delivery ledger beside the collector's summary. Installs the
# Debian packages first when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target qvcore-shell qvcore-collector

tools=build/default/tools
work=$(mktemp -d)
collector_pid=
cleanup() {
  [ -n "$collector_pid" ] && kill "$collector_pid" 2>/dev/null && wait "$collector_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# The first post is refused with a 500, so that it goes to the disk cache.
"$tools/collector/qvcore-collector" --port 0 --db "$work/collector.sqlite" --fail-first 1 \
  > "$work/collector.log" 2>&1 &
collector_pid=$!
url=
for _ in $(seq 100); do
  url=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/collector.log" | head -n 1 || true)
  [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || { echo "the collector did not start" >&2; cat "$work/collector.log" >&2; exit 1; }
echo "collector at $url"

sed -e "s|@COLLECTOR@|$url|g" -e "s|@HOME@|$work/home|g" examples/demo.qvs > "$work/demo.qvs"
"$tools/shell/qvcore-shell" "$work/demo.qvs"

echo "== What the collector received (the last lines of its log)"
tail -n 10 "$work/collector.log"
echo "== The collector's totals: every request it stored, the refused first one included"
"$tools/collector/qvcore-collector" dump --db "$work/collector.sqlite" --summary
echo "The requests are on the collector's page at $url/_qv/ while it runs;"
echo "run qvcore-collector yourself to keep it open."
