#!/usr/bin/env bash
# Builds the whole project with AddressSanitizer and UndefinedBehaviorSanitizer
# in its own build directory and runs the whole test suite there. Any
# sanitizer report fails the test that triggered it.
#   scripts/sanitize.sh [build-dir]      (default build-sanitize)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-sanitize}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVRIK_SANITIZE=ON >/dev/null
cmake --build "$build" -j2
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1:suppressions=$PWD/scripts/asan.supp
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$build" --output-on-failure -j2
