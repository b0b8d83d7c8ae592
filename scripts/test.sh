#!/usr/bin/env bash
# Builds everything and runs every test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2
ctest --test-dir build --output-on-failure -j2
# The suite again under AddressSanitizer + UndefinedBehaviorSanitizer, then
# each fuzz target for a short bounded time (docs/fuzzing.md).
bash scripts/sanitize.sh build-sanitize
bash fuzz/run.sh 20
