#!/usr/bin/env bash
# Builds the fuzz targets with clang-14 (libFuzzer, ASan, UBSan) and runs each
# for a bounded time, starting from its committed corpus. Any crash, leak,
# sanitizer report, timeout or broken contract fails the run.
#   fuzz/run.sh [seconds-per-target] [target...]     default: 25 s, every target
#   TAVRIK_FUZZ_BUILD=<dir>                           default: build-fuzz
# New corpus entries go to <build>/corpus/<target>/ and findings to
# <build>/artifacts/<target>/; the committed corpus is only read.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-25}
shift || true
build=${TAVRIK_FUZZ_BUILD:-$root/build-fuzz}

CC=clang-14 CXX=clang++-14 cmake -S "$root/fuzz/libfuzzer" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 -- --no-print-directory >"$build/build.log" 2>&1 || { cat "$build/build.log"; exit 1; }

targets=("$@")
if ((${#targets[@]} == 0)); then
  for exe in "$build"/fuzz_*; do [ -x "$exe" ] && targets+=("${exe##*/fuzz_}"); done
fi

export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/artifacts/$t"
  log="$build/artifacts/$t/last-run.log"
  if "$build/fuzz_$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
       -dict="$root/fuzz/keywords.dict" -artifact_prefix="$build/artifacts/$t/" \
       "$build/corpus/$t" "$root/fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $t: ${runs:-?} executions in ${seconds} s, no finding"
  else
    echo "fuzz $t: FINDING (log: $log)"
    grep -E 'ERROR|SUMMARY|runtime error|contract broken|Test unit written|terminate' "$log" | head -20 || true
    status=1
  fi
done
exit $status
