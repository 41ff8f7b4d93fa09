#!/usr/bin/env bash
# Builds the given preset (default: "default") and runs every test with CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
ctest --preset "$preset" -j"$(nproc)"
