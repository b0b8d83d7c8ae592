#!/usr/bin/env bash
# Builds the benchmarks in a Release build of their own and runs them: the
# cost of one change in each change handler next to its floor, and the
# engine's edit of 10,000 profiles next to libyang's diff of the same trees.
# Each program ends with its table of ratios (docs/benchmarks.md).
#
#   scripts/bench.sh [Google Benchmark flags...]   e.g. --benchmark_filter=create/
# BENCH_BUILD_DIR chooses the build directory (default build-bench).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${BENCH_BUILD_DIR:-build-bench}
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$dir" -j2 --target handler_bench engine_bench
echo "== $(nproc) cores; load before:$(uptime | sed 's/.*load average://')"
"$dir/bench/handler_bench" "$@"
echo
"$dir/bench/engine_bench" "$@"
echo "== load after:$(uptime | sed 's/.*load average://')"
