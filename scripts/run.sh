#!/usr/bin/env bash
# Builds the host program and runs it on the bundled scenario (or on the arguments given).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" --target corvd-sim
if [ $# -eq 0 ]; then
  set -- scenarios/default.scn
fi
exec build/default/tools/corvd-sim/corvd-sim "$@"
