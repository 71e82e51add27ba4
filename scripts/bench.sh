#!/usr/bin/env bash
# Builds the benchmarks (default preset, build/bench), runs every one of them
# and writes docs/PERFORMANCE.md from their JSON output. The findings section
# of the document, between its markers, is kept as it is.
#
#   scripts/bench.sh            build, run, write the document
#   BENCH_JOBS=1 scripts/bench.sh   build with one job
#   BENCH_REALTIME=1 scripts/bench.sh   run the programs at real-time priority
#       (chrt -f 50, needs root), so that other work on the machine (builds,
#       tests) disturbs the figures less; the document says so
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/bench"
out="$build/results"
jobs="${BENCH_JOBS:-2}"

launcher=()
if command -v ccache > /dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake --preset default -B "$build" "${launcher[@]}" > /dev/null
cmake --build "$build" -j"$jobs" --target qvcore_benchmarks

mkdir -p "$out"
rm -f "$out"/*.json
bin="$build/bench"
run=()
priority="normal"
if [[ "${BENCH_REALTIME:-0}" == 1 ]]; then
  run=(chrt -f 50)
  priority="real-time (chrt -f 50)"
fi
load_before="$(cut -d' ' -f1-3 /proc/loadavg)"
for name in QVPostBenchmark QVPayloadBenchmark QVCompressionBenchmark QVEndToEndBenchmark; do
  echo "== $name"
  "${run[@]}" "$bin/$name" --benchmark_out="$out/$name.json" --benchmark_out_format=json
done
echo "== QVPostBenchmark (system reachability)"
# Every posting case again, so that the two sources stand side by side.
"${run[@]}" "$bin/QVPostBenchmark" --qv_netlink \
  --benchmark_out="$out/QVPostBenchmarkNetlink.json" --benchmark_out_format=json
echo "== QVMemoryBenchmark"
"${run[@]}" "$bin/QVMemoryBenchmark" | tee "$out/QVMemoryBenchmark.json"
load_after="$(cut -d' ' -f1-3 /proc/loadavg)"

python3 "$root/bench/performance_report.py" "$out" "$root/docs/PERFORMANCE.md" \
  "$load_before" "$load_after" "$priority"
echo "wrote docs/PERFORMANCE.md"
