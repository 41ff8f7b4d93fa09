#!/usr/bin/env bash
# Builds the host program (without the tests: it needs only cmake, ninja-build and g++) and runs
# it: on its bundled scenario, or with the arguments given (a scenario file, --trace levels).
# Build output goes to stderr, so `scripts/run.sh > tables.txt` holds only the tables.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset run >&2
cmake --build --preset run -j"$(nproc)" >&2
exec build/run/tools/corvd-sim/corvd-sim "$@"
