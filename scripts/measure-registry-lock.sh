#!/usr/bin/env bash
# Composite latency with the registry lock built both ways, in one run: the
# polling lock (build/default) and a plain std::mutex (build/registry-std-mutex).
# The two programs take turns, round by round, so that what the machine does
# meanwhile falls on both; each prints its own table per round.
#
# Usage: scripts/measure-registry-lock.sh [SECONDS] [ROUNDS] [ROWS]
#   SECONDS per row (default 4), ROUNDS of turns (default 3), ROWS: the
#   benchmark's --only text (default: every row).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-4}
rounds=${2:-3}
rows=${3:-}
jobs=$(nproc)

cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs" --target pelto_reload_latency >/dev/null
cmake -S . -B build/registry-std-mutex -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ \
  -DPELTO_REGISTRY_STD_MUTEX=ON -DPELTO_BUILD_TESTS=OFF -DPELTO_BUILD_TOOLS=OFF >/dev/null
cmake --build build/registry-std-mutex -j "$jobs" --target pelto_reload_latency >/dev/null

args=(--seconds="$seconds" --rounds=1)
[ -n "$rows" ] && args+=(--only="$rows")
for round in $(seq 1 "$rounds"); do
  echo "=== round $round: SpinThenBlockMutex"
  build/default/bench/pelto_reload_latency "${args[@]}"
  echo "=== round $round: std::mutex"
  build/registry-std-mutex/bench/pelto_reload_latency "${args[@]}"
done
