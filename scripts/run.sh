#!/usr/bin/env bash
# The main job on the embedded default (the simulated appliance).
set -euo pipefail
exec bash "$(dirname "$0")/demo.sh" "$@"
