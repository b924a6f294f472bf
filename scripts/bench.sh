#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them all (or those whose
# program name matches $1). They build their own large databases in a
# temporary folder; expect several minutes and a few GB of disk.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZORV_BUILD_BENCH=ON -DZORV_BUILD_TESTS=OFF
cmake --build build-bench
for program in build-bench/bench/zorv_bench_*; do
  [[ -z "${1:-}" || "$program" == *"$1"* ]] || continue
  echo "== $program"
  "$program" --benchmark_counters_tabular=true
done
