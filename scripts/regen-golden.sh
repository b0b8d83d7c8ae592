#!/usr/bin/env bash
# Writes the reviewed dumps anew after a deliberate change: the module's
# descriptors and callback table (tests/module/callback_table.golden: the exported
# numbers, namespaces and data store functions, then row, priority, exported
# function, path) and the appliance's documents and saved file of its rich test state
# (tests/appliance/cases/documents.golden). Review the diff and commit it with
# the change.
#   scripts/regen-golden.sh [build-dir]      (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
cmake --build "$build" -j2 --target module_table_dump appliance-tests >/dev/null
"$build/tests/module/module_table_dump" > tests/module/callback_table.golden
TKTEST_REGEN_GOLDEN=1 "$build/tests/appliance/appliance-tests" --gtest_filter='ApplianceDocuments.AsReviewed' >/dev/null
git diff --stat -- tests/module/callback_table.golden tests/appliance/cases/documents.golden
