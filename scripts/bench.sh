#!/usr/bin/env bash
# Builds the benchmarks in build-bench (Release) and runs them: every figure in one run,
# nine repetitions each in random order (so that a change of load during the run falls on
# all of them alike), medians kept. Results go to build-bench/bench-results.json and a
# plot of cost against block length and band to docs/performance.png.
#   bash scripts/bench.sh                 # everything (about four minutes)
#   bash scripts/bench.sh 'Network|Setup' # only the benchmarks whose names match
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-dependencies.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTARNLOW_BUILD_BENCHMARKS=ON \
  -DTARNLOW_BUILD_TESTS=OFF -DTARNLOW_BUILD_PLUGINS=OFF -DTARNLOW_BUILD_TOOLS=OFF > /dev/null
cmake --build build-bench --target tarnlow_bench -j2
build-bench/bench/tarnlow_bench \
  --benchmark_filter="${1:-.}" \
  --benchmark_min_time=0.05 \
  --benchmark_repetitions=9 \
  --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out=build-bench/bench-results.json \
  --benchmark_out_format=json
/usr/bin/python3 bench/plot.py build-bench/bench-results.json docs/performance.png
