#!/usr/bin/env bash
# Writes the module's callback table anew into tests/module/callback_table.golden
# (row, priority, exported function, path), after a deliberate change of the
# table: review the diff and commit it with the change.
#   scripts/regen-golden.sh [build-dir]      (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
cmake --build "$build" -j2 --target module_table_dump >/dev/null
"$build/tests/module/module_table_dump" > tests/module/callback_table.golden
git diff --stat -- tests/module/callback_table.golden
