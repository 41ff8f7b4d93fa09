#!/usr/bin/env bash
# Builds the fuzz preset (clang++, libFuzzer, AddressSanitizer + UndefinedBehaviorSanitizer) and
# runs fuzz targets, each for SECONDS (default 20) starting from its seeds in fuzz/corpus/<target>/
# with its dictionary fuzz/<target>.dict. Exits non-zero when any target reports a finding (a
# crash, a sanitizer report, a broken check, a leak, a timeout or running out of memory).
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     # no TARGET: the targets CI runs (below)
#   FUZZ_ARGS="-runs=10000000" scripts/fuzz.sh 0 ip4_text    # extra libFuzzer options
#
# What a run finds is kept under build/fuzz/: the growing corpus in corpus/<target>/ (reused by
# the next run), crash inputs in artifacts/, the full output in logs/<target>.log. Replay one
# input with build/fuzz/fuzz/<target> <file>.
set -euo pipefail
cd "$(dirname "$0")/.."

# The targets CI runs.
ci_targets=(ip4_text ip6_text eth_text names ip_addr_set_text trace_config sockaddr scenario netlink)

seconds="${1:-20}"
[ $# -gt 0 ] && shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${ci_targets[@]}")

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"$(nproc)"

out=build/fuzz
mkdir -p "$out/artifacts" "$out/logs"
passed=0
failed=0
for t in "${targets[@]}"; do
  mkdir -p "$out/corpus/$t"
  log="$out/logs/$t.log"
  # shellcheck disable=SC2086  # FUZZ_ARGS is a list of options
  if "$out/fuzz/$t" -max_total_time="$seconds" -max_len=512 -timeout=10 -print_final_stats=1 \
      -dict="fuzz/$t.dict" -artifact_prefix="$out/artifacts/$t-" ${FUZZ_ARGS:-} \
      "$out/corpus/$t" "fuzz/corpus/$t" >"$log" 2>&1; then
    passed=$((passed + 1))
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    echo "fuzz $t: ok, $runs executions ($rate/s)"
  else
    failed=$((failed + 1))
    echo "fuzz $t: FAILED (full output in $log)"
    grep -E '^(FINDING|SUMMARY|==[0-9]+==ERROR)|runtime error|^artifact_prefix|^Test unit written' \
      "$log" | head -20 || true
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
