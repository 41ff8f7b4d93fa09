#!/usr/bin/env bash
# Builds the host program (without the tests: it needs only cmake, ninja-build, g++ and the
# libraries .ci/run installs) and runs it: on its bundled scenario, or with the arguments given (a
# scenario file, taken from the directory the script is called from, and options; --help lists
# them). Build output goes to stderr, so `scripts/run.sh > tables.txt` holds only the tables.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
(
  cd "$root"
  cmake --preset run >&2
  cmake --build --preset run -j"$(nproc)" >&2
)
exec "$root/build/run/tools/corvd-sim/corvd-sim" "$@"
