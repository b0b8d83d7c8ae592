#!/usr/bin/env bash
# Runs test programs under valgrind's memcheck: any memory error or definite
# leak fails the run. Default: the module's tests of the main build.
#   scripts/valgrind.sh [test-program [gtest-arguments...]]
set -euo pipefail
cd "$(dirname "$0")/.."
program=${1:-build/tests/module/module_tests}
shift || true
exec valgrind --quiet --error-exitcode=99 \
  --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
  "$program" --gtest_brief=1 "$@"
