#!/usr/bin/env bash
# Builds the host program and runs it: on its bundled scenario, or with the arguments given
# (a scenario file, --trace levels).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" --target corvd-sim
exec build/default/tools/corvd-sim/corvd-sim "$@"
