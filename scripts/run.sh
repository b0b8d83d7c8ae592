#!/usr/bin/env bash
# Builds the project and applies the example edits, one after the other, to a
# copy of the example running configuration on the simulated appliance,
# printing every command line the antivirus module sends.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target tkav >/dev/null
work=$(mktemp -d)
cp examples/running.xml "$work/running.xml"
for edit in examples/0*.xml; do
  echo "== tkav apply $edit"
  build/host/cli/tkav apply "$edit" --running "$work/running.xml" || echo "(refused: exit $?)"
  echo
done
echo "== tkav get-config (read back from the appliance)"
build/host/cli/tkav get-config --running "$work/running.xml"
echo "== tkav get (state data)"
build/host/cli/tkav get --running "$work/running.xml"
echo "(files kept in $work)"
