#!/usr/bin/env bash
# Measures corvd-sim's kernel mode on a burst: 100,000 IPv4 routes added with `ip -batch` into a
# source namespace while `corvd-sim --kernel SRC --fib DST` runs. Prints, per run, the wall time
# from the start of the burst until the target namespace holds every route of protocol 73, the
# time `ip -batch` itself took, the routes per second, the netlink overruns and the longest
# slice of corvd-sim's loop (one read of the socket, one due callback, or one FIB update).
# Needs root and iproute2; builds nothing (run scripts/test.sh or a build first). With
# IRI_BURST_VERBOSE=1 it also prints corvd-sim's kernel summary line (the longest turn of each kind).
#   scripts/kernel-burst.sh [RUNS] [ROUTES]
set -euo pipefail
cd "$(dirname "$0")/.."
runs="${1:-3}"
routes="${2:-100000}"
sim=build/default/tools/corvd-sim/corvd-sim
tmp=$(mktemp -d)
src="irik-burst-$$-src"
dst="irik-burst-$$-dst"
cleanup() {
  [ -n "${pid:-}" ] && kill "$pid" 2>/dev/null || true
  ip netns del "$src" 2>/dev/null || true
  ip netns del "$dst" 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
for ((i = 0; i < routes; ++i)); do
  echo "route add $((30 + i / 65536)).$((i / 256 % 256)).$((i % 256)).0/24 via 10.1.0.5 proto static"
done >"$tmp/batch"
for ((run = 1; run <= runs; ++run)); do
  for ns in "$src" "$dst"; do
    ip netns add "$ns"
    ip -n "$ns" link add a0 type veth peer name a1
    ip -n "$ns" link set a0 up
    ip -n "$ns" link set a1 up
  done
  ip -n "$src" addr add 10.1.0.1/24 dev a0
  ip -n "$dst" addr add 10.1.0.2/24 dev a0
  "$sim" --kernel "$src" --fib "$dst" --trace none >"$tmp/out" 2>"$tmp/err" &
  pid=$!
  sleep 1
  start=$(date +%s.%N)
  ip -n "$src" -batch "$tmp/batch"
  added=$(date +%s.%N)
  while [ "$(ip -n "$dst" route show proto 73 | wc -l)" -lt $((routes + 1)) ]; do sleep 0.05; done
  end=$(date +%s.%N)
  kill -INT "$pid"
  wait "$pid" || true
  pid=
  line=$(grep "^== kernel" "$tmp/out")
  [ -n "${IRI_BURST_VERBOSE:-}" ] && echo "$line"
  overruns=$(sed 's/.* overruns \([0-9]*\).*/\1/' <<<"$line")
  slice=$(sed 's/.* longest-slice \([0-9.e-]*\).*/\1/' <<<"$line")
  awk -v s="$start" -v a="$added" -v e="$end" -v n="$routes" -v o="$overruns" -v l="$slice" \
    -v r="$run" 'BEGIN { printf "run %d: %.2f s (ip -batch %.2f s), %.0f routes/s, overruns %d, " \
    "longest slice %.3f s\n", r, e - s, a - s, n / (e - s), o, l }'
  ip netns del "$src"
  ip netns del "$dst"
done
